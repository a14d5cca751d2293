// The other end of the virtual controller's port.
#pragma once

#include <string>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

/** The client's end of the port. */
class Port
{
public:
    explicit Port(const std::string& strNode, speed_t speed = B115200, tcflag_t uFlags = CS8)
        : m_nFd(open(strNode.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
        termios attr{};
        EXPECT_EQ(0, tcgetattr(m_nFd, &attr));
        cfsetspeed(&attr, speed);
        attr.c_cflag = (attr.c_cflag & ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB)) | uFlags;
        EXPECT_EQ(0, tcsetattr(m_nFd, TCSANOW, &attr));
    }
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    ~Port()
    {
        close(m_nFd);
    }

    ssize_t say(const std::string& strText) const
    {
        return write(m_nFd, strText.data(), strText.size());
    }

    /** Wait for the next bytes; empty when the port hangs up. */
    std::string hear() const
    {
        pollfd entry{m_nFd, POLLIN, 0};
        poll(&entry, 1, 30000);
        char acBuffer[256] = {0};
        const ssize_t nRead = read(m_nFd, acBuffer, sizeof(acBuffer));
        return std::string(acBuffer, (nRead > 0) ? static_cast<size_t>(nRead) : 0);
    }

    /** Wait for so many bytes. */
    std::string hear(size_t uBytes) const
    {
        std::string strAll;
        std::string strMore;
        while (strAll.size() < uBytes && !(strMore = hear()).empty()) {
            strAll += strMore;
        }
        return strAll;
    }

    int getFd() const
    {
        return m_nFd;
    }

private:
    int m_nFd;
};

/** A name that no other run of the tests uses. */
inline std::string scratchPath(const std::string& strName)
{
    return testing::TempDir() + "kestrel-" + std::to_string(getpid()) + strName;
}
