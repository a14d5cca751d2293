// The virtual controller's serial port: a pseudo terminal that can be plugged in and pulled out.
#pragma once

#include <string>

#include <sys/types.h>

/**
 * A pseudo terminal whose slave end appears under a path of choice.
 *
 * The slave end is kept open here too, so that the line survives clients that come and go; pulling
 * the cable hangs up whoever has it open, as a removed USB device does.
 */
class PtyPort
{
public:
    /** @param strNode  where the port appears, as a symbolic link; replaced when it exists */
    explicit PtyPort(std::string strNode);
    PtyPort(const PtyPort&) = delete;
    PtyPort& operator=(const PtyPort&) = delete;
    ~PtyPort();

    /** A new port in raw mode, at 9600 baud as the kernel has it. @return false with errno set;
     * true also when plugged in already */
    bool plug();

    /** The node goes away, open descriptors of it hang up. */
    void unplug();

    bool isPlugged() const
    {
        return m_nMaster >= 0;
    }

    /** For poll; -1 while unplugged. */
    int getFd() const
    {
        return m_nMaster;
    }

    /**
     * Whether the port is at 115200 baud, as the controller is. The kernel forces 8 data bits
     * without parity on a pseudo terminal, so these cannot be wrong; stop bits do not matter to a
     * receiver.
     */
    bool isSpeedRight() const;

    /** The terminal that the node leads to. */
    const std::string& getSlavePath() const
    {
        return m_strSlave;
    }

    /** Whether a client has the port open now. To look, this end's own is closed and opened. */
    bool isOpenedByOthers();

    /** Whether the line DTR falls when the last client closes the port. */
    bool hangsUpOnClose() const;

    /** What has arrived, at most 4096 bytes; empty when nothing has. */
    std::string read() const;

    /** @return bytes taken; the rest is lost, as a device without flow control loses it */
    size_t write(const std::string& strText) const;

private:
    std::string m_strNode;
    std::string m_strSlave;
    int m_nMaster = -1;
    int m_nSlave = -1;
};
