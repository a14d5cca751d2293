// The laser arm: the line to its motion controller, G-code jobs, moves and firmware.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "FirmwareUpload.h"
#include "PrintJob.h"
#include "PrintLink.h"

class ControllerPort;
class Event;
class SelfStoppingThread;
class UART;

/**
 * Talks to the motion controller of the laser arm, one line and one reply at a time.
 *
 * Nothing here is a safety function: docs/serial.md says what the laser does when something goes
 * wrong. What a reply says and how a single command reads on the wire is up to ReplyCodec; with the
 * placeholder that the service is delivered with, "M5" (laser off), "$X", "$H" and the moves go out
 * as empty lines, so the laser is never switched off, and every reply is an acknowledgement.
 *
 * A job runs on the thread "printservice", which is started only by startPrint(); moves run on the
 * thread that publishes MoveLaserEvent or MeasureEvent; the rest on the caller's thread. They share
 * the port without serialisation: a reply goes to the first reader. Results: 0 success, 1
 * refusal, unless stated otherwise. Much is printed, also that the port is gone; it is
 * not opened again here (call SystemModule::openSerial() for that).
 *
 * Files, in the working directory: "tmp.gcode" is the job; "firmware.bin" is the image that
 * updateFirmware() was given; "pp.bin" is the image that is sent, put in place by someone else.
 */
class PrintService
{
public:
    /** Made on first use; before or after the system module; the port outlives both. */
    static PrintService& getInstance();
    PrintService(const PrintService&) = delete;
    PrintService& operator=(const PrintService&) = delete;
    virtual ~PrintService();

    /** Borrow the port, from now on until another is set; null for none. Any thread. */
    void setUart(UART* pUart);

    /** Whether somebody still reads from a port or writes to it, be it one that was taken back. */
    bool isPortInUse() const;

    /**
     * Send one command in its wire form and read one reply, for 2 seconds at most. A command that
     * begins with '0' uploads "pp.bin" first, as updateFirmware() does.
     * @param nLength  not used, the command ends with its zero byte
     * @return 0 sent completely, whatever the reply; 1 no port or cut short
     */
    int printSingleCmd(const char* pCommand, int nLength);
    int printSingleCmd(const std::string& strCommand);

    /** Read one reply into a buffer, which is cleared first; waits that long at most. */
    void readUart(char* pBuffer, int nSize, int nSeconds, int nMicroseconds);

    /**
     * Read one reply, 10 seconds at most, and act on its status as a service without a job does.
     */
    void pollStatus();

    /** Clear the controller's error lock ("$X") for the codes 2 and 9; others do nothing. */
    void onErrorCode(int nCode);

    /**
     * Keep a job in "tmp.gcode" and wait for startPrint(); progress 0. Takes half a second. In the
     * states printing and paused the former job is first ended by stopPrint(), with all that this
     * says.
     * @return 0, whatever became of the file
     */
    int saveGcode(const void* pData, int nLength);

    /**
     * Start the waiting job, or resume a paused one that is still open; does not wait for
     * it. Of two callers at once one is refused.
     * @return 1 while the state is printing, without a port, and without a job file; after the last
     *         two the state still says printing, until stopPrint() or saveGcode()
     */
    int startPrint();

    /**
     * Stop after the line under way, send "M5" (laser off); startPrint() resumes.
     *
     * Blocks for the thread: "M5" goes out after 12.5 s at most (10 s for the reply to the line,
     * 0.5 s, 2 s for "$X"), 13.5 s when lines were cut short; its own reply takes 2 s at most. The
     * laser stays on meanwhile, and the moves that the controller has queued continue after that.
     * @return 0, also when "M5" could not be sent, which is printed on standard output
     */
    int pausePrint();

    /** Give the job up; the rest as pausePrint(). */
    int stopPrint();

    /**
     * @param pProgress  gets the share of the job file before the current line, 0 to
     *                   1 at every moment; 0 for an empty file
     * @return 0
     */
    int getProgress(float* pProgress);

    /**
     * Keep an image in "firmware.bin", then send "pp.bin" in raw blocks.
     * @return 1 without a port, else 0, whatever became of either
     */
    int updateFirmware(const void* pData, int nLength);

    /** Reset the controller by 500 ms low on its reset line. @return 0 */
    int resetStm32();

    /** Make the reset line an output, high; that alone may reset the controller, see ResetLine. */
    void exportResetGpio();

    /**
     * The thread's body: PrintJob::sendNextLine() for a job that is printing or paused, else
     * pollStatus(). A stop that the thread asks of itself on the way takes effect at the end,
     * unless startPrint() came after it. @return 0
     */
    int printLoop();

    /**
     * Home, then move to the negated position; 45 s at most. No reply and no state is looked at.
     * @return -1
     */
    int onMoveLaserEvent(Event* pEvent);

    /** Move to the negated height; 23 s at most. @return -1 */
    int onMeasureEvent(Event* pEvent);

    /** Any thread. */
    PRINT_STATE_E getState() const;

protected:
    /** For getInstance() and derived classes. */
    PrintService();

private:
    void onIdleStatus(int nCode);
    void startByButton();
    static void askSubscribers();

    ControllerPort& m_port; // for the reset; outlives the service
    PrintLink m_link;
    FirmwareUpload m_firmware{m_link};
    std::unique_ptr<SelfStoppingThread> m_thread;
    PrintJob m_job;
};
