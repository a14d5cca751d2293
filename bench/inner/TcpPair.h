// A loopback TCP connection whose far end throws away what it gets.
#pragma once

#include <stdexcept>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

/** The near end does not block, as the service's connections do not. */
class TcpPair
{
public:
    TcpPair()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t uLength = sizeof(address);
        auto* pAddress = reinterpret_cast<sockaddr*>(&address);
        const int nListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        require(0 == bind(nListener, pAddress, sizeof(address)));
        require(0 == getsockname(nListener, pAddress, &uLength));
        require(0 == listen(nListener, 1));
        m_nFar = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int nSize = 1 << 20; // room for a frame: it is emptied behind the measured part
        require(0 == setsockopt(m_nFar, SOL_SOCKET, SO_RCVBUF, &nSize, sizeof(nSize)));
        require(0 == connect(m_nFar, pAddress, sizeof(address)));
        m_nNear = accept4(nListener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        require(m_nNear >= 0);
        require(0 == setsockopt(m_nNear, SOL_SOCKET, SO_SNDBUF, &nSize, sizeof(nSize)));
        close(nListener);
    }
    TcpPair(const TcpPair&) = delete;
    TcpPair& operator=(const TcpPair&) = delete;
    ~TcpPair()
    {
        close(m_nNear);
        close(m_nFar);
    }

    int near() const
    {
        return m_nNear;
    }

    /** Throw everything away that has been sent; waits until it has come. */
    void drain(size_t uSent) const
    {
        while (uSent > 0) {
            const ssize_t nGot = recv(m_nFar, nullptr, uSent, MSG_TRUNC); // tcp(7): not copied
            require(nGot > 0);
            uSent -= static_cast<size_t>(nGot);
        }
    }

    /** Throw away what has come, once something has. */
    void drainAll() const
    {
        char acData[65536];
        require(recv(m_nFar, acData, sizeof(acData), 0) > 0);
    }

private:
    static void require(bool bCondition)
    {
        if (!bCondition) {
            throw std::runtime_error("TcpPair");
        }
    }

    int m_nNear = -1;
    int m_nFar = -1;
};
