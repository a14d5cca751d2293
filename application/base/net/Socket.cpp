// An IPv4 socket: addresses, waits, exact and timed transfers, with every failure in the log.
#include "Socket.h"

#include <cerrno>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "DeviceIo.h"
#include "Log.h"
#include "SocketError.h"

static const char* const SOURCE_NAME = "Socket";

static const int REFUSED = -1; // peer closed, nothing sent, or time-out

Socket& Socket::operator=(const Socket& other)
{
    m_fd = other.m_fd; // locks belong to the object
    return *this;
}

int Socket::report(int nErrno, int nLine, const char* pOperation)
{
    uint32_t u32Level = 0;
    const char* pText = socketErrorText(nErrno, u32Level);
    Log::getInstance().log(SOURCE_NAME, nLine, pOperation, u32Level, "%s", pText);
    return -1;
}

int Socket::bind(const char* pIp, uint16_t u16Port)
{
    if (!isValid()) {
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(u16Port);
    address.sin_addr.s_addr = (nullptr == pIp) ? htonl(INADDR_ANY) : inet_addr(pIp);
    if (0 != ::bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address))) {
        return report(errno, __LINE__, "bind");
    }
    return 0;
}

int Socket::connect(const char* pIp, uint16_t u16Port)
{
    sockaddr_in address{};
    if (!isValid() || 0 != toSockAddr(pIp, u16Port, address)) {
        return -1;
    }
    return connect(address);
}

int Socket::connect(const sockaddr_in& address)
{
    if (!isValid()) {
        return -1;
    }
    if (-1 == ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address))) {
        return report(errno, __LINE__, "connect");
    }
    return 0;
}

int Socket::getAddress(int (*pCall)(int, sockaddr*, socklen_t*), sockaddr_in& address, int nLine,
                       const char* pOperation) const
{
    if (!isValid()) {
        return -1;
    }
    socklen_t uLength = sizeof(address);
    if (0 != pCall(m_fd, reinterpret_cast<sockaddr*>(&address), &uLength)) {
        return report(errno, nLine, pOperation);
    }
    return 0;
}

int Socket::getLocalSockAddr(sockaddr_in& address)
{
    return getAddress(&getsockname, address, __LINE__, "getLocalSockAddr");
}

int Socket::getRemoteSockAddr(sockaddr_in& address)
{
    return getAddress(&getpeername, address, __LINE__, "getRemoteSockAddr");
}

/** The address that a call got, as text; empty when it failed. @return the call's result */
static int writeAddress(int nResult, const sockaddr_in& raw, SocketAddress& address)
{
    address = SocketAddress();
    if (0 == nResult) {
        Socket::fromSockAddr(raw, address);
    }
    return nResult;
}

int Socket::getLocalSockAddr(SocketAddress& address)
{
    sockaddr_in raw{};
    return writeAddress(getLocalSockAddr(raw), raw, address);
}

int Socket::getRemoteSockAddr(SocketAddress& address)
{
    sockaddr_in raw{};
    return writeAddress(getRemoteSockAddr(raw), raw, address);
}

int Socket::toSockAddr(const char* pIp, uint16_t u16Port, sockaddr_in& address)
{
    address = sockaddr_in{};
    address.sin_family = AF_INET;
    address.sin_port = htons(u16Port);
    return (nullptr != pIp && 1 == inet_pton(AF_INET, pIp, &address.sin_addr)) ? 0 : -1;
}

void Socket::fromSockAddr(const sockaddr_in& address, SocketAddress& text)
{
    inet_ntop(AF_INET, &address.sin_addr, text.acIp, sizeof(text.acIp));
    text.u16Port = ntohs(address.sin_port);
}

int Socket::close()
{
    if (!isValid()) {
        return 0;
    }
    const int nRet = ::close(m_fd);
    m_fd = -1;
    return nRet;
}

int Socket::shutdown(int nHow)
{
    return isValid() ? ::shutdown(m_fd, nHow) : 0;
}

bool Socket::waitReadable(const Time& timeout) const
{
    return ::waitReadable(m_fd, timeout.getSeconds(), timeout.getMicroseconds());
}

bool Socket::waitWritable(const Time& timeout) const
{
    return ::waitWritable(m_fd, timeout.getSeconds(), timeout.getMicroseconds());
}

ssize_t Socket::receiveOnce(void* pBuffer, int nLength, sockaddr_in* pAddr)
{
    const auto uLength = static_cast<size_t>(nLength);
    if (nullptr == pAddr) {
        return recv(m_fd, pBuffer, uLength, 0);
    }
    socklen_t uAddrLength = sizeof(*pAddr);
    return recvfrom(m_fd, pBuffer, uLength, 0, reinterpret_cast<sockaddr*>(pAddr), &uAddrLength);
}

ssize_t Socket::sendOnce(const void* pData, int nLength, const sockaddr_in* pAddr)
{
    const auto uLength = static_cast<size_t>(nLength);
    if (nullptr == pAddr) {
        return send(m_fd, pData, uLength, 0);
    }
    return sendto(m_fd, pData, uLength, 0, reinterpret_cast<const sockaddr*>(pAddr),
                  sizeof(*pAddr));
}

/** Sleep before the next attempt. @return false when the time-out, unless null, is over */
static bool pauseBefore(const Time& start, const Time* pTimeout)
{
    if (nullptr == pTimeout) {
        sleepFor(Time(0, 3000));
        return true;
    }
    if (monotonicNow() - start >= *pTimeout) {
        return false;
    }
    sleepFor(Time(0, 5000));
    return true;
}

int Socket::receiveAll(void* pBuffer, int nLength, int& nDone, sockaddr_in* pAddr,
                       const Time* pTimeout)
{
    const Time start = (nullptr == pTimeout) ? Time() : monotonicNow();
    MutexGuard guard(m_readMutex); // waiting for another reader counts
    for (;;) {
        const ssize_t nReceived =
            receiveOnce(static_cast<char*>(pBuffer) + nDone, nLength - nDone, pAddr);
        if (0 == nReceived) {
            return REFUSED;
        }
        if (nReceived > 0) {
            nDone += static_cast<int>(nReceived);
            if (nDone >= nLength) {
                return 0;
            }
        } else if (EAGAIN == errno) {
            if (!pauseBefore(start, pTimeout)) {
                return REFUSED;
            }
        } else if (EINTR != errno) {
            return errno;
        }
    }
}

int Socket::sendAll(const void* pData, int nLength, int& nDone, const sockaddr_in* pAddr,
                    const Time* pTimeout)
{
    const Time start = (nullptr == pTimeout) ? Time() : monotonicNow();
    MutexGuard guard(m_writeMutex); // waiting for another writer counts
    for (;;) {
        const ssize_t nSent =
            sendOnce(static_cast<const char*>(pData) + nDone, nLength - nDone, pAddr);
        if (0 == nSent) {
            return (0 == nLength) ? 0 : REFUSED;
        }
        if (nSent > 0) {
            nDone += static_cast<int>(nSent);
            if (nDone >= nLength) {
                return 0;
            }
        } else if (EAGAIN == errno) {
            if (!pauseBefore(start, pTimeout)) {
                return REFUSED;
            }
        } else if (EINTR != errno) {
            return errno;
        }
    }
}

int Socket::finish(int nResult, int nLine, const char* pOperation)
{
    return (nResult > 0) ? report(nResult, nLine, pOperation) : nResult;
}

int Socket::read(void* pBuffer, int nLength, int& nDone, sockaddr_in* pAddr)
{
    nDone = 0;
    if (!isValid()) {
        return -1;
    }
    ssize_t nReceived = 0;
    int nErrno = 0;
    {
        MutexGuard guard(m_readMutex);
        nReceived = receiveOnce(pBuffer, nLength, pAddr);
        nErrno = errno;
    }
    if (nReceived > 0) {
        nDone = static_cast<int>(nReceived);
        return 0;
    }
    if (0 == nReceived) {
        return -1;
    }
    return (EINTR == nErrno || EAGAIN == nErrno) ? 0 : report(nErrno, __LINE__, "read");
}

int Socket::readE(void* pBuffer, const int& nLength, sockaddr_in* pAddr)
{
    int nDone = 0;
    return isValid()
               ? finish(receiveAll(pBuffer, nLength, nDone, pAddr, nullptr), __LINE__, "readE")
               : -1;
}

int Socket::readTimeOut(void* pBuffer, int nLength, int& nDone, sockaddr_in* pAddr,
                        const Time& timeout)
{
    nDone = 0;
    return isValid() ? finish(receiveAll(pBuffer, nLength, nDone, pAddr, &timeout), __LINE__,
                              "readTimeOut")
                     : -1;
}

int Socket::write(const void* pData, int nLength, int& nDone, const sockaddr_in* pAddr)
{
    nDone = 0;
    if (!isValid()) {
        return -1;
    }
    ssize_t nSent = 0;
    int nErrno = 0;
    {
        MutexGuard guard(m_writeMutex);
        nSent = sendOnce(pData, nLength, pAddr);
        nErrno = errno;
    }
    return finishWrite(nSent, nErrno, 0 == nLength, nDone, __LINE__);
}

int Socket::write(iovec* pPieces, int nCount, int& nDone, int nFlags)
{
    nDone = 0;
    if (!isValid()) {
        return -1;
    }
    msghdr message{};
    message.msg_iov = pPieces;
    message.msg_iovlen = static_cast<decltype(message.msg_iovlen)>(nCount);
    ssize_t nSent = 0;
    int nErrno = 0;
    {
        MutexGuard guard(m_writeMutex);
        nSent = sendmsg(m_fd, &message, nFlags);
        nErrno = errno;
    }
    return finishWrite(nSent, nErrno, false, nDone, __LINE__);
}

/** @param bEmpty  there was nothing to send */
int Socket::finishWrite(ssize_t nSent, int nErrno, bool bEmpty, int& nDone, int nLine)
{
    if (nSent > 0) {
        nDone = static_cast<int>(nSent);
        return 0;
    }
    if (0 == nSent) {
        return bEmpty ? 0 : -1;
    }
    if (EINTR == nErrno || EAGAIN == nErrno) {
        errno = nErrno; // the caller may want to tell them apart
        return 0;
    }
    return report(nErrno, nLine, "write");
}

int Socket::writeE(const void* pData, const int& nLength, const sockaddr_in* pAddr)
{
    int nDone = 0;
    return isValid() ? finish(sendAll(pData, nLength, nDone, pAddr, nullptr), __LINE__, "writeE")
                     : -1;
}

int Socket::writeTimeOut(const void* pData, int nLength, int& nDone, const sockaddr_in* pAddr,
                         const Time& timeout)
{
    nDone = 0;
    return isValid()
               ? finish(sendAll(pData, nLength, nDone, pAddr, &timeout), __LINE__, "writeTimeOut")
               : -1;
}
