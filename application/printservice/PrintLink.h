// The line to the motion controller: commands and job lines out, replies in.
#pragma once

#include <atomic>
#include <cstdint>
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
     * Whether somebody still works with a port. Once false behind setPort(nullptr), nobody touches
     * the former one any more: it can be closed. Never blocks.
     */
    bool isPortInUse() const
    {
        return 0 != m_nUses;
    }

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
    /** The port for a scope, if there is one. */
    class PortUse
    {
    public:
        explicit PortUse(PrintLink& link) : m_link(link)
        {
            ++m_link.m_nUses; // first: whoever still gets the port has been counted
            m_pUart = m_link.m_pUart;
        }
        PortUse(const PortUse&) = delete;
        PortUse& operator=(const PortUse&) = delete;
        ~PortUse()
        {
            --m_link.m_nUses;
        }

        UART* get() const
        {
            return m_pUart;
        }

    private:
        PrintLink& m_link;
        UART* m_pUart;
    };

    int sendText(UART& uart, const std::string& strText);
    bool endCutLine(UART& uart);

    std::atomic<UART*> m_pUart{nullptr};
    std::atomic<int32_t> m_nUses{0};
    std::atomic<bool> m_bCut{false}; // the last line or command did not go out whole
};
