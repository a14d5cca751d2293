// A TCP client of the service.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

/** A TCP client of the service. */
class Peer
{
public:
    explicit Peer(int nReceiveBuffer = 0) : m_nFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        if (nReceiveBuffer > 0) {
            setsockopt(m_nFd, SOL_SOCKET, SO_RCVBUF, &nReceiveBuffer, sizeof(nReceiveBuffer));
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(8329);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_bConnected =
            0 == ::connect(m_nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer()
    {
        ::close(m_nFd);
    }

    bool isConnected() const
    {
        return m_bConnected;
    }

    void send(const std::string& strBytes) const
    {
        (void)!::send(m_nFd, strBytes.data(), strBytes.size(), MSG_NOSIGNAL);
    }

    /** Send no more, but go on reading. */
    void finish() const
    {
        (void)::shutdown(m_nFd, SHUT_WR);
    }

    /** Read until so many bytes have come in all, or the service closes. @return all bytes */
    const std::string& readUntil(size_t uCount)
    {
        char acBuffer[4096];
        while (m_strReceived.size() < uCount) {
            pollfd entry{m_nFd, POLLIN, 0};
            if (poll(&entry, 1, 30000) <= 0) {
                break; // a deadline that only ends a failing run
            }
            const ssize_t nRead = recv(m_nFd, acBuffer, sizeof(acBuffer), 0);
            if (nRead <= 0) {
                m_bClosed = true;
                break;
            }
            m_strReceived.append(acBuffer, static_cast<size_t>(nRead));
        }
        return m_strReceived;
    }

    /** Read on until the service closes. @return all bytes */
    const std::string& readToEnd()
    {
        return readUntil(SIZE_MAX);
    }

    bool isClosed() const
    {
        return m_bClosed;
    }

private:
    int m_nFd;
    bool m_bConnected = false;
    bool m_bClosed = false;
    std::string m_strReceived;
};
