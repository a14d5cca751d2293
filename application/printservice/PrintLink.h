// The line to the motion controller: commands and job lines out, replies in.
#pragma once

#include <atomic>
#include <string>

class Time;
class UART;

/**
 * Borrows the serial port. Any thread; users are not serialised: a reply goes to the first
 * reader.
 *
 * When a line or command was cut short, a lone line end goes out before the next one, so that this
 * is not glued to the fragment; the answer to it is waited for, 500 ms at most, and dropped. A
 * write that fails because the port is gone is reported on standard output.
 */
class PrintLink
{
public:
    static const int REPLY_SIZE = 64; // bytes of a reply at most

    /** The port to use from now on, until another is set; null for none. */
    void setPort(UART* pUart);

    bool hasPort() const;

    /**
     * Send a single command in its wire form, printed on standard output, and read one reply, for 2
     * seconds at most.
     * @return 0 sent completely, whatever the reply; 1 no port or cut short: no reply is read
     */
    int sendCommand(const char* pCommand);

    /**
     * Send a job line as it is.
     * @return bytes sent, fewer when it was cut short, 0 without a port
     */
    int sendLine(const std::string& strLine);

    /** Send a block of bytes that are no line. @return bytes sent */
    int sendBlock(const char* pBlock, int nSize);

    /** Clear the controller's error lock ("$X") for the codes 2 and 9; nothing for others. */
    void clearErrorLock(int nCode);

    /**
     * Read one reply to a job line, or what the controller says unasked; waits 10 s at most.
     * @return the text before its first zero byte; empty without a port or a reply
     */
    std::string awaitReply();

    /** Clear the buffer and read one reply into it; waits that long at most. */
    void readReply(char* pBuffer, int nSize, const Time& timeout);

    /** Wait for the second answer to a move, which comes when the arm is there; 20 s at most. */
    void awaitMove();

private:
    int sendText(UART& uart, const std::string& strText);
    bool endCutLine(UART& uart);

    std::atomic<UART*> m_pUart{nullptr};
    std::atomic<bool> m_bCut{false}; // the last line or command did not go out whole
};
