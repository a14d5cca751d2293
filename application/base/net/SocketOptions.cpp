// The option operations of Socket.
#include <cerrno>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "DeviceIo.h"
#include "Log.h"
#include "Socket.h"
#include "SocketError.h"

static const char* const SOURCE_NAME = "Socket";

int Socket::checkError(int nRet)
{
    if (0 != nRet) {
        const int nErrno = errno;
        const char* pText = socketOptionErrorText(nErrno);
        if (nullptr != pText) {
            LOG(7, "%s", pText);
        }
        LOG(7, "nRet:%d  errno:%d\n", nRet, nErrno);
    }
    return nRet;
}

int Socket::setOption(int nLevel, int nName, const void* pValue, socklen_t uLength)
{
    return isValid() ? checkError(setsockopt(m_fd, nLevel, nName, pValue, uLength)) : -1;
}

int Socket::getOption(int nLevel, int nName, void* pValue, socklen_t uLength)
{
    return isValid() ? checkError(getsockopt(m_fd, nLevel, nName, pValue, &uLength)) : -1;
}

int Socket::setInt(int nLevel, int nName, int32_t nValue)
{
    return setOption(nLevel, nName, &nValue, sizeof(nValue));
}

int Socket::getInt(int nLevel, int nName, int32_t& nValue)
{
    return getOption(nLevel, nName, &nValue, sizeof(nValue));
}

int Socket::setOptReuseAddr(bool bReuse)
{
    return setInt(SOL_SOCKET, SO_REUSEADDR, bReuse ? 1 : 0);
}

int Socket::getOptReuseAddr(bool& bReuse)
{
    int32_t nValue = 0;
    const int nRet = getInt(SOL_SOCKET, SO_REUSEADDR, nValue);
    bReuse = nValue > 0;
    return nRet;
}

int Socket::setOptLinger(bool bOnOff, int32_t nSeconds)
{
    linger value{};
    value.l_onoff = bOnOff ? 1 : 0;
    value.l_linger = nSeconds;
    return setOption(SOL_SOCKET, SO_LINGER, &value, sizeof(value));
}

int Socket::getOptLinger(bool& bOnOff, int32_t& nSeconds)
{
    linger value{};
    const int nRet = getOption(SOL_SOCKET, SO_LINGER, &value, sizeof(value));
    bOnOff = 0 != value.l_onoff;
    nSeconds = value.l_linger;
    return nRet;
}

// Deliberate: milliseconds with an option length of 4, which Linux refuses (EINVAL).
int Socket::setOptSndTimeO(int32_t nMs)
{
    return setInt(SOL_SOCKET, SO_SNDTIMEO, nMs);
}

int Socket::getOptSndTimeO(int32_t& nMs)
{
    return getInt(SOL_SOCKET, SO_SNDTIMEO, nMs);
}

int Socket::setOptRcvTimeO(int32_t nMs)
{
    return setInt(SOL_SOCKET, SO_RCVTIMEO, nMs);
}

int Socket::getOptRcvTimeO(int32_t& nMs)
{
    return getInt(SOL_SOCKET, SO_RCVTIMEO, nMs);
}

int Socket::setOptRcvBuf(int32_t nSize)
{
    return setInt(SOL_SOCKET, SO_RCVBUF, nSize);
}

int Socket::setOptSndBuf(int32_t nSize)
{
    return setInt(SOL_SOCKET, SO_SNDBUF, nSize);
}

int Socket::getOptSndBuf(int32_t& nSize)
{
    return getInt(SOL_SOCKET, SO_SNDBUF, nSize);
}

int Socket::getOptRcvBuf(int32_t& nSize)
{
    return getInt(SOL_SOCKET, SO_RCVBUF, nSize);
}

int Socket::setOptTTL(int32_t nTTL)
{
    return setInt(IPPROTO_IP, IP_TTL, nTTL);
}

int Socket::getOptTTL(int32_t& nTTL)
{
    return getInt(IPPROTO_IP, IP_TTL, nTTL);
}

int Socket::setOptKeepAlive(bool bOn, const int32_t* pValues)
{
    if (0 != setInt(SOL_SOCKET, SO_KEEPALIVE, bOn ? 1 : 0)) {
        return -1;
    }
    if (!bOn) {
        return 0;
    }
    const int anNames[] = {TCP_KEEPIDLE, TCP_KEEPINTVL, TCP_KEEPCNT};
    for (int i = 0; i < 3; ++i) {
        if (0 != setInt(IPPROTO_TCP, anNames[i], pValues[i])) {
            return -1;
        }
    }
    return 0;
}

int Socket::setOptBlock(bool bBlock)
{
    const int nFlags = fcntl(m_fd, F_GETFL); // without a descriptor, too
    if (-1 == nFlags) {
        return -1;
    }
    const int nWanted = bBlock ? (nFlags & ~O_NONBLOCK) : (nFlags | O_NONBLOCK);
    return (-1 == fcntl(m_fd, F_SETFL, nWanted)) ? -1 : 0;
}

int Socket::getOptBlock(bool& bBlock)
{
    const int nFlags = fcntl(m_fd, F_GETFL); // without a descriptor, too
    if (-1 == nFlags) {
        return -1;
    }
    bBlock = 0 == (nFlags & O_NONBLOCK);
    return 0;
}

int Socket::getSndQueue(int32_t& nBytes)
{
    nBytes = 0;
    return (isValid() && 0 == ioctlRetry(m_fd, TIOCOUTQ, &nBytes)) ? 0 : -1;
}

int Socket::getRcvQueue(int32_t& nBytes)
{
    nBytes = 0;
    return (isValid() && 0 == ioctlRetry(m_fd, FIONREAD, &nBytes)) ? 0 : -1;
}
