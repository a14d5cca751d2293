// Connected sockets and what the network tests do with them.
#include "NetPair.h"

#include <csignal>
#include <stdexcept>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DeviceIo.h"

namespace {

struct IgnoreBrokenPipes
{
    IgnoreBrokenPipes()
    {
        signal(SIGPIPE, SIG_IGN); // as the service does
    }
} g_ignoreBrokenPipes;

void require(bool bCondition, const char* pWhat)
{
    if (!bCondition) {
        throw std::runtime_error(pWhat);
    }
}

} // namespace

uint16_t portOf(int nFd)
{
    sockaddr_in address{};
    socklen_t uLength = sizeof(address);
    require(0 == getsockname(nFd, reinterpret_cast<sockaddr*>(&address), &uLength), "getsockname");
    return ntohs(address.sin_port);
}

TcpSocket connectTo(uint16_t u16Port)
{
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(u16Port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(0 == connect(nFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            "connect");
    return TcpSocket(nFd);
}

NetPair::NetPair()
{
    const int nListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    require(0 == bind(nListener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
            "bind");
    require(0 == listen(nListener, 1), "listen");
    m_far = connectTo(portOf(nListener));
    m_near = TcpSocket(accept(nListener, nullptr, nullptr));
    require(m_near.isValid(), "accept");
    close(nListener);
}

NetPair::~NetPair()
{
    (void)m_near.close();
    (void)m_far.close();
}

ZeroIsFree::ZeroIsFree() : m_nInput(fcntl(0, F_DUPFD_CLOEXEC, 3))
{
    close(0);
}

ZeroIsFree::~ZeroIsFree()
{
    if (m_nInput >= 0) {
        dup2(m_nInput, 0);
        close(m_nInput);
    }
}

void shrinkSendBuffer(TcpSocket& sender)
{
    const int nSize = 4096;
    setsockopt(sender.getFd(), SOL_SOCKET, SO_SNDBUF, &nSize, sizeof(nSize));
}

size_t fillUp(TcpSocket& sender)
{
    const std::string strBlock(65536, '#');
    size_t uTaken = 0;
    size_t uBlock = strBlock.size();
    int nRefusals = 0;
    // The receiver's kernel may take more in after a refusal, also when the sender's retransmission
    // timer (200 ms) asks again, and a single byte may still fit.
    while (nRefusals < 10) {
        const ssize_t nSent = send(sender.getFd(), strBlock.data(), uBlock, MSG_DONTWAIT);
        if (nSent > 0) {
            uTaken += static_cast<size_t>(nSent);
            nRefusals = 0;
        } else {
            ++nRefusals;
            uBlock = 1;
            (void)waitWritable(sender.getFd(), 0, 30000);
        }
    }
    return uTaken;
}

std::string readPending(const TcpSocket& socket)
{
    std::string strResult;
    char acBuffer[4096];
    for (;;) {
        const ssize_t nGot = recv(socket.getFd(), acBuffer, sizeof(acBuffer), MSG_DONTWAIT);
        if (nGot <= 0) {
            return strResult;
        }
        strResult.append(acBuffer, static_cast<size_t>(nGot));
    }
}

std::string readBytes(const TcpSocket& socket, size_t uCount)
{
    std::string strResult(uCount, '\0');
    size_t uDone = 0;
    while (uDone < uCount && waitReadable(socket.getFd(), 30, 0)) {
        const ssize_t nGot = recv(socket.getFd(), &strResult[uDone], uCount - uDone, 0);
        if (nGot <= 0) {
            break;
        }
        uDone += static_cast<size_t>(nGot);
    }
    strResult.resize(uDone);
    return strResult;
}

std::vector<std::string> takeLines(LogCapture& log, const std::string& strText)
{
    std::vector<std::string> vecFound;
    for (const std::string& strLine : log.lines()) {
        if (std::string::npos != strLine.find(strText)) {
            vecFound.push_back(strLine);
        }
    }
    log.clear();
    return vecFound;
}

bool isOpen(int nFd)
{
    return -1 != fcntl(nFd, F_GETFD);
}

bool sawEnd(const TcpSocket& socket)
{
    char cByte = 0;
    return socket.waitReadable(Time(10, 0)) && recv(socket.getFd(), &cByte, 1, 0) <= 0;
}

bool isSilent(const TcpSocket& socket)
{
    char cByte = 0;
    return -1 == recv(socket.getFd(), &cByte, 1, MSG_DONTWAIT) && EAGAIN == errno;
}

int optionOf(int nFd, int nLevel, int nName)
{
    int nValue = -1;
    socklen_t uLength = sizeof(nValue);
    EXPECT_EQ(0, getsockopt(nFd, nLevel, nName, &nValue, &uLength));
    return nValue;
}
