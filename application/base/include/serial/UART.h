// A serial port in raw mode, with time-outs: the line to the motion controller.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

class Time;

/**
 * Wraps one character device through termios.
 *
 * Results: 1 success, 0 failure, unless a function says otherwise. Texts of failures go to standard
 * error as perror writes them.
 *
 * Owns its descriptor until close(); deliberate: the destructor does not close it. There is no
 * lock: of two threads that share a port one may take the other's reply. Only the descriptor
 * itself may be read, closed and opened by different threads; the line parameters are set by one
 * thread before the port is handed on.
 */
class UART
{
public:
    UART() = default;
    UART(const UART&) = delete;
    UART& operator=(const UART&) = delete;
    virtual ~UART() = default;

    /** The device that open() without a path takes. */
    void setPath(const std::string& strPath);

    /** open() of the path set before. */
    int open();

    /**
     * Open for reading and writing, without blocking, in raw mode; not as controlling terminal. A
     * port that is still open is closed first.
     * @return 0 when it can't be opened (silent), and when raw mode is refused: the descriptor then
     *         stays open
     */
    int open(const std::string& strPath);

    /** Nothing happens when closed. */
    void close();

    /** Replaces all of the descriptor's status flags by O_NONBLOCK (false) or none. @return 0 */
    int setBlock(bool bBlock);

    /**
     * No input or output processing, no flow control, no echo, reads of one byte; character size,
     * parity and speed stay. Both queues are flushed.
     */
    int setRawMode();

    /** The four setters below in order, up to the first that fails. */
    int setParam(int32_t s32Speed, int32_t s32DataBits, int32_t s32StopBits, int32_t s32Parity);

    /**
     * @param s32Baud  300 to 115200 from the usual rates. Deliberate: any other value is recorded
     * and reported as success while the line keeps its speed.
     */
    int setSpeed(int32_t s32Baud);

    /** @param s32DataBits  5 to 8; others fail silently */
    int setDataBits(int32_t s32DataBits);

    /** @param s32StopBits  1 or 2 */
    int setStopBits(int32_t s32StopBits);

    /** @param s32Parity  0 none, 1 odd, 2 even, 3 and 4 none with the input flags left alone */
    int setParity(int32_t s32Parity);

    int32_t getSpeed() const
    {
        return m_nSpeed;
    }
    int32_t getDataBits() const
    {
        return m_nDataBits;
    }
    int32_t getStopBits() const
    {
        return m_nStopBits;
    }
    int32_t getParity() const
    {
        return m_nParity;
    }

    /** Characters per second as of the last setParam(), 0 before. */
    int32_t getCharRate() const
    {
        return m_nCharRate;
    }

    /** -1 when closed. Any thread. */
    int32_t getFd() const
    {
        return m_fd;
    }

    /**
     * Wait for input and read once.
     * @return negative when the read failed. Deliberate: 0 otherwise, also when bytes have arrived;
     *         the caller clears the buffer first and judges by its content
     */
    int32_t read(char* pBuffer, int32_t s32Length, const Time& timeout);

    /**
     * Write until everything is taken or a write takes nothing, which ends it: a port that is full
     * cuts the data short ("nWriteLength:%d" on standard output).
     * @param nWaitDrain  1 waits for the transmitter to empty, at most two transmission times
     * @return bytes written; when fewer than asked for without the wait, errno says why:
     *         EAGAIN for a port that is full, EIO, ENODEV, ENXIO or EBADF for one that is gone. -1
     *         when the device can't say whether its transmitter is empty (logged, level 7), as USB
     *         serial ports and pseudo terminals can't
     */
    int32_t send(const char* pData, int32_t s32Length, int nWaitDrain);

    /** Throw away what is queued. @return tcflush(3)'s result */
    int flushIn();
    int flushOut();
    int flushIO();

    /** Print the four flag words to standard output. */
    void printAttr();

    /** Milliseconds that the line needs for so many bytes; 0 before setParam(). */
    int32_t txTime(int32_t s32Bytes) const;

    /** The same as a Time; 0 for a negative one. */
    Time txTimeValue(int32_t s32Bytes) const;

private:
    std::string m_strPath;
    int32_t m_nSpeed = 9600; // this and the next three: not applied before setParam()
    int32_t m_nDataBits = 7;
    int32_t m_nStopBits = 0;
    int32_t m_nParity = 0;
    std::atomic<int32_t> m_fd{-1}; // read by the print service's threads
    int32_t m_nCharRate = 0;
};
