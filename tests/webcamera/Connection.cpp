// A connection of the camera service without its server: the test is the reactor and the peer.
#include "Connection.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

Connection::Connection(int nSendBuffer) : m_pClient(new WebCameraClient())
{
    int anFd[2] = {-1, -1};
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, anFd));
    m_nFd = anFd[0];
    m_nPeer = anFd[1];
    if (nSendBuffer > 0) {
        EXPECT_EQ(0, setsockopt(m_nFd, SOL_SOCKET, SO_SNDBUF, &nSendBuffer, sizeof(nSendBuffer)));
    }
    m_pClient->setSocket(TcpSocket(m_nFd));
    EXPECT_EQ(0, m_pClient->init());
    EXPECT_EQ(0, m_pClient->start());
}

Connection::~Connection()
{
    end();
    closePeer();
}

void Connection::end()
{
    if (nullptr != m_pClient) {
        EXPECT_EQ(0, m_pClient->stop());
        EXPECT_EQ(0, m_pClient->uninit());
        delete m_pClient;
        m_pClient = nullptr;
        ::close(m_nFd);
    }
}

void Connection::closePeer()
{
    if (m_nPeer >= 0) {
        ::close(m_nPeer);
        m_nPeer = -1;
    }
}

int Connection::request(const std::string& strBytes)
{
    EXPECT_EQ(static_cast<ssize_t>(strBytes.size()),
              ::send(m_nPeer, strBytes.data(), strBytes.size(), 0));
    return read();
}

int Connection::read()
{
    TcpClient* pClient = m_pClient;
    EPollEvent event(EPOLLIN, &m_nFd, &pClient);
    return (0 == m_pClient->onRead(event)) ? endTurn() : 1;
}

int Connection::writeOn()
{
    TcpClient* pClient = m_pClient;
    EPollEvent event(EPOLLOUT, &m_nFd, &pClient);
    return (0 == m_pClient->onWrite(event)) ? endTurn() : 1;
}

int Connection::endTurn()
{
    int nTurn = m_pClient->onTurn();
    while (TcpClient::TURN_AGAIN == nTurn) {
        nTurn = m_pClient->onTurn();
    }
    return nTurn;
}

std::string Connection::receive(size_t uMost)
{
    std::string strBytes;
    char acBuffer[4096];
    while (strBytes.size() < uMost) {
        const size_t uWanted = std::min(sizeof(acBuffer), uMost - strBytes.size());
        const ssize_t nRead = ::recv(m_nPeer, acBuffer, uWanted, 0);
        if (nRead <= 0) {
            break;
        }
        strBytes.append(acBuffer, static_cast<size_t>(nRead));
    }
    return strBytes;
}

std::string Connection::receiveAll()
{
    std::string strBytes;
    for (;;) {
        const std::string strMore = receive();
        if (strMore.empty()) {
            return strBytes;
        }
        strBytes += strMore;
        EXPECT_EQ(0, writeOn());
    }
}
