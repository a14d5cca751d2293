// A pseudo terminal in place of a controller's port.
#pragma once

#include <array>
#include <cstdlib>
#include <string>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

/** The test is the controller; its end does not block. Raw, so that no byte means anything. */
class TestTerminal
{
public:
    TestTerminal() : m_nFd(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
        std::array<char, 64> acName{};
        termios attr{};
        if (0 == grantpt(m_nFd) && 0 == unlockpt(m_nFd) && 0 == tcgetattr(m_nFd, &attr) &&
            0 == ptsname_r(m_nFd, acName.data(), acName.size())) {
            cfmakeraw(&attr);
            tcsetattr(m_nFd, TCSANOW, &attr);
            m_strPath = acName.data();
        }
    }
    TestTerminal(const TestTerminal&) = delete;
    TestTerminal& operator=(const TestTerminal&) = delete;
    ~TestTerminal()
    {
        hangUp();
    }

    const std::string& path() const
    {
        return m_strPath;
    }

    /** Pull the cable. */
    void hangUp()
    {
        if (m_nFd >= 0) {
            close(std::exchange(m_nFd, -1));
        }
    }

    void write(const std::string& strBytes) const
    {
        (void)!::write(m_nFd, strBytes.data(), strBytes.size());
    }

    /** What has come, without waiting. */
    std::string read() const
    {
        std::string strBytes;
        std::array<char, 4096> acData{};
        for (ssize_t n = 0; (n = ::read(m_nFd, acData.data(), acData.size())) > 0;) {
            strBytes.append(acData.data(), static_cast<size_t>(n));
        }
        return strBytes;
    }

    /** Wait for something. @return false when nothing comes; the deadline only ends a failing run
     */
    bool wait() const
    {
        pollfd entry{m_nFd, POLLIN, 0};
        return 1 == poll(&entry, 1, 30000) && 0 != (entry.revents & POLLIN);
    }

private:
    int m_nFd;
    std::string m_strPath;
};
