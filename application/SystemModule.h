// The module for the device side, and the facade through which the HTTP service reaches it.
#pragma once

#include "IModule.h"
#include "VideoFrame.h"

class IConsumer;

/**
 * Runs the capture side's life. The vision host and the print service are reached through it but
 * not started by it.
 *
 * The lifecycle is the main thread's; the other operations may come from any thread. The module
 * keeps no state that needs a lock.
 */
class SystemModule : public IModule
{
public:
    /** Created on first use; outlives every object whose constructor called this. */
    static SystemModule& getInstance();
    ~SystemModule() override;

    /** The capture side's matching steps and their results; see VideoCapturer.h. */
    RET_E initModule() override;
    RET_E startModule() override;
    RET_E stopModule() override;
    RET_E uninitModule() override;

    /** The module has no commands of its own. @return 0 */
    int onDebugCmd(Event* pEvent) override;

    /**
     * Deliver the frames of the consumer's stream to it from now on; see VideoCapturer.h.
     */
    RET_E registerConsumer(IConsumer* pConsumer);

    /** After the return the consumer is not called any more. */
    RET_E cancelConsumer(IConsumer* pConsumer);

    /** Run the measuring sequence, which waits for frames; see VideoProcessor.h. */
    RET_E measure(float* pResult);

    /** Correct a frame's lens distortion, as far as the vision host can; VideoProcessor.h. */
    void undistort(PVENC_FRAME_T& in, PVENC_FRAME_T& out);

    /**
     * Reset the motion controller, find its serial port and open it: the first node that
     * "ls /dev/ttyACM*" lists, 115200 baud, 8 data bits, 1 stop bit, no parity. From then on the
     * print service and the controller object use it. Nothing in the start-up calls this.
     *
     * Blocks until there is a port that opens, however long; looks once a second. One caller at a
     * time, and not while the print service works on the port.
     * @return RET_FAILED when the reset or the line parameters are refused; both then keep what
     *         they had
     */
    RET_E openSerial();

    // To the print service, which is made by the first of these calls; see PrintService.h.

    /**
     * Send a command and read its reply: 2 s at most, 2.5 s after a line that was cut short, and
     * as long as it takes for one with a '0', which sends the firmware.
     * @return 1 without a port or cut short
     */
    int sendPrintCommand(const char* pCommand, int nLength);

    /** Keep a job; half a second, and as long as stopPrintJob() over an open one. @return 0 */
    int savePrintJob(const void* pData, int nLength);

    /** Keep an image and send the one in place. @return 1 without a port */
    int updateControllerFirmware(const void* pData, int nLength);

    /** Start the waiting job or resume a paused one. @return 1 when refused */
    int startPrintJob();

    /**
     * Stop after the current line and send "M5", which the placeholder codec leaves empty; up to
     * 15.5 s.
     * @return 0
     */
    int pausePrintJob();

    /** Give the job up; the rest as pausePrintJob(). @return 0 */
    int stopPrintJob();

    /** @param pProgress  gets the share of the job that is through, 0 to 1 @return 0 */
    int getPrintProgress(float* pProgress);

    /** To the controller object, whose two operations have no effect. @return 0 */
    int callControllerReservedFirst();
    int callControllerReservedSecond();

private:
    SystemModule();
};
