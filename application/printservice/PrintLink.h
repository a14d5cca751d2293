// The line to the motion controller: commands and job lines out, replies in.
#pragma once

#include <atomic>
#include <string>

class Time;
class UART;

/**
 * Borrows the serial port. Any thread; nothing serialises the users, a reply goes to whoever reads
 * first.
 */
class PrintLink
{
public:
    static const int REPLY_SIZE = 64; // bytes of a reply at most

    /** The port to use from now on, until another is set; null for none. */
    void setPort(UART* pUart);

    bool hasPort() const;

    /**
     * Send a single command in its wire form, told on standard output, and read one reply, for 2
     * seconds at most.
     * @return 0 sent completely, whatever the reply; 1 no port or cut short: no reply is read
     */
    int sendCommand(const char* pCommand);

    /** Send a job line as it is. @return bytes sent, fewer when it was cut short */
    int sendLine(const std::string& strLine);

    /** Send a block of bytes. @return bytes sent */
    int sendBlock(const char* pBlock, int nSize);

    /** Clear the buffer and read one reply into it; waits that long at most. */
    void readReply(char* pBuffer, int nSize, const Time& timeout);

    /** Wait for the second answer to a move, which comes when the arm is there; 20 s at most. */
    void awaitMove();

private:
    std::atomic<UART*> m_pUart{nullptr};
};
