// Somebody who watches the log.
#pragma once

#include <algorithm>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Log.h"

/** Log a line of level 2. */
inline void logLine(const std::string& strText)
{
    Log::getInstance().log("Some.cpp", 1, "doIt", 2, "%s", strText.c_str());
}

/** A log viewer with a socket of its own. */
class Viewer
{
public:
    explicit Viewer(uint16_t u16Port, int nReceiveBuffer = 0)
        : m_nFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        if (0 != nReceiveBuffer) {
            setsockopt(m_nFd, SOL_SOCKET, SO_RCVBUF, &nReceiveBuffer, sizeof(nReceiveBuffer));
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(u16Port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, ::connect(m_nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    }
    Viewer(const Viewer&) = delete;
    Viewer& operator=(const Viewer&) = delete;
    ~Viewer()
    {
        close(m_nFd);
    }

    void send(const std::string& strText) const
    {
        EXPECT_EQ(static_cast<ssize_t>(strText.size()),
                  ::send(m_nFd, strText.data(), strText.size(), MSG_NOSIGNAL));
    }

    /** @return false without data for that long (a failing run's deadline), or when closed */
    bool readMore(int nTimeoutMs = 30000)
    {
        pollfd entry{m_nFd, POLLIN, 0};
        char acBuffer[65536];
        if (poll(&entry, 1, nTimeoutMs) <= 0) {
            return false;
        }
        const ssize_t nRead = recv(m_nFd, acBuffer, sizeof(acBuffer), 0);
        if (nRead <= 0) {
            return false;
        }
        m_strText.append(acBuffer, static_cast<size_t>(nRead));
        return true;
    }

    /** Read until the text so far holds strEnd; if wanted only the last bytes are kept. */
    bool readUntil(const std::string& strEnd, bool bForget = false)
    {
        size_t uFrom = 0;
        while (std::string::npos == m_strText.find(strEnd, uFrom)) {
            if (bForget && m_strText.size() > 100000) {
                m_strText.erase(0, m_strText.size() - 100);
            }
            uFrom = m_strText.size() - std::min(m_strText.size(), strEnd.size());
            if (!readMore()) {
                return false;
            }
        }
        return true;
    }

    /** Logs until this viewer gets lines: from then on it gets all. What it got is forgotten. */
    void waitUntilServed()
    {
        ASSERT_TRUE(eventually([this] {
            logLine("?");
            pollfd entry{m_nFd, POLLIN, 0};
            return 1 == poll(&entry, 1, 1);
        }));
        logLine("!\n");
        ASSERT_TRUE(readUntil("!\n")); // the last one
        m_strText.clear();
    }

    /** The server has not closed; what waits to be read stays. */
    bool isOpen() const
    {
        pollfd entry{m_nFd, POLLRDHUP, 0};
        return 0 == poll(&entry, 1, 0);
    }

    const std::string& text() const
    {
        return m_strText;
    }

private:
    int m_nFd;
    std::string m_strText;
};
