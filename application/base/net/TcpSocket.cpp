// A TCP socket: creation, listening, accepting, and buffer sizes within the kernel's limits.
#include "TcpSocket.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Assert.h"
#include "Command.h"
#include "Log.h"

static const char* const SOURCE_NAME = "TcpSocket";

static const uint32_t ANSWER_MS = 1000; // more than a round trip takes

namespace {

enum LIMITS_E
{
    LIMITS_ABSENT, // the kernel has no such file
    LIMITS_UNREADABLE,
    LIMITS_READ
};

struct Limits
{
    unsigned int uMinimum = 0;
    unsigned int uMaximum = 0;
};

LIMITS_E readLimits(const char* pFile, const char* pCommand, Limits& limits)
{
    if (0 != access(pFile, R_OK)) {
        return LIMITS_ABSENT;
    }
    char acOutput[64 + 1];
    if (!captureCommand(pCommand, acOutput, sizeof(acOutput))) {
        return LIMITS_UNREADABLE;
    }
    unsigned int uDefault = 0;
    if (3 != sscanf(acOutput, "%u %u %u", &limits.uMinimum, &uDefault, &limits.uMaximum)) {
        return LIMITS_UNREADABLE; // Deliberate: no three numbers, nothing to compare with
    }
    return LIMITS_READ;
}

/** @return true when the size is within the limits, else it is clamped */
bool correct(int32_t& nSize, const Limits& limits)
{
    const int64_t s64Size = nSize;
    if (s64Size < limits.uMinimum) {
        nSize = static_cast<int32_t>(limits.uMinimum);
        return false;
    }
    if (s64Size > limits.uMaximum) {
        nSize = static_cast<int32_t>(limits.uMaximum);
        return false;
    }
    return true;
}

} // namespace

int TcpSocket::create()
{
    if (isValid()) {
        return -1;
    }
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        const int nErrno = errno;
        LOG(7, "socket(%d)", m_fd);
        errno = nErrno;
        perror("socket error.");
        return -1;
    }
    return 0;
}

int TcpSocket::listen(int nBacklog)
{
    if (!isValid()) {
        return -1;
    }
    if (0 != ::listen(m_fd, nBacklog)) {
        perror("listen error.");
        return -1;
    }
    return 0;
}

int TcpSocket::accept(TcpSocket& peer)
{
    if (!isValid()) {
        errno = EBADF;
        return -1;
    }
    sockaddr_in address{};
    socklen_t uLength = sizeof(address);
    peer.m_fd = accept4(m_fd, reinterpret_cast<sockaddr*>(&address), &uLength, SOCK_CLOEXEC);
    // Deliberate: an interrupted call counts as success; callers look at the peer's descriptor.
    return (peer.isValid() || EINTR == errno) ? 0 : -1;
}

int TcpSocket::checkState() const
{
    if (!isValid()) {
        return 4;
    }
    pollfd entry{};
    entry.fd = m_fd;
    entry.events = POLLIN | POLLOUT | POLLPRI;
    if (poll(&entry, 1, 0) < 0 || 0 != (entry.revents & POLLNVAL)) {
        return 4; // Deliberate: also when a signal interrupts it, the state is unknown then
    }
    // The classes that select(2) forms: an error makes both directions ready.
    int nState = 0;
    nState |= (0 != (entry.revents & (POLLIN | POLLHUP | POLLERR))) ? 1 : 0;
    nState |= (0 != (entry.revents & (POLLOUT | POLLERR))) ? 2 : 0;
    nState |= (0 != (entry.revents & POLLPRI)) ? 4 : 0;
    return nState;
}

bool TcpSocket::isPeerSilent(uint32_t u32Ms) const
{
    tcp_info info{};
    socklen_t uLength = sizeof(info);
    if (0 != getsockopt(m_fd, IPPROTO_TCP, TCP_INFO, &info, &uLength) ||
        uLength < offsetof(tcp_info, tcpi_last_ack_recv) + sizeof(info.tcpi_last_ack_recv) ||
        info.tcpi_last_ack_recv < u32Ms) {
        return false;
    }
    // What was sent just now may still be acknowledged, however long the pause: when a window
    // closes with data on its way, the kernel sends that data again and again.
    const bool bData = info.tcpi_unacked > 0 && info.tcpi_last_data_sent >= ANSWER_MS &&
                       info.tcpi_last_data_sent < info.tcpi_last_ack_recv;
    // Likewise the latest probe; the one before it has not been answered.
    const bool bProbes = info.tcpi_probes > 1;
    return bData || bProbes;
}

int TcpSocket::setOptRcvBuf(int32_t nSize)
{
    Limits limits;
    if (LIMITS_READ ==
        readLimits("/proc/sys/net/ipv4/tcp_rmem", "cat /proc/sys/net/ipv4/tcp_rmem", limits)) {
        const int32_t nRequest = nSize;
        if (!correct(nSize, limits)) {
            LOG(2,
                "tcp socket set recv buffer size error, min:%u max:%u  invalid:%d, correct to %u\n",
                limits.uMinimum, limits.uMaximum, nRequest, static_cast<unsigned int>(nSize));
        }
    }
    return Socket::setOptRcvBuf(nSize);
}

int TcpSocket::setOptSndBuf(int32_t nSize)
{
    Limits limits;
    const LIMITS_E eResult =
        readLimits("/proc/sys/net/ipv4/tcp_wmem", "cat /proc/sys/net/ipv4/tcp_wmem", limits);
    if (LIMITS_UNREADABLE == eResult) {
        return Socket::setOptRcvBuf(nSize); // Deliberate: the receive buffer
    }
    if (LIMITS_READ == eResult) {
        const int32_t nRequest = nSize;
        if (!correct(nSize, limits)) {
            LOG(2,
                "tcp socket set send buffer size error, min:%u max:%u  invalid:%d, correct to %u\n",
                limits.uMinimum, limits.uMaximum, nRequest, static_cast<unsigned int>(nSize));
        }
    }
    return Socket::setOptSndBuf(nSize);
}

void TcpSocket::printCurOpts()
{
    static const char* const FUNCTION = "void TcpSocket::printCurOpts()";
    if (!isValid()) {
        return;
    }
    bool bReuse = false;
    ASSERT_IN(FUNCTION, 0 == getOptReuseAddr(bReuse));
    bool bLingerOnOff = false;
    int32_t nLinger = 0;
    ASSERT_IN(FUNCTION, 0 == getOptLinger(bLingerOnOff, nLinger));
    int32_t nSndTimeO = 0;
    ASSERT_IN(FUNCTION, 0 == getOptSndTimeO(nSndTimeO));
    int32_t nRcvTimeO = 0;
    ASSERT_IN(FUNCTION, 0 == getOptRcvTimeO(nRcvTimeO));
    int32_t nSndBuf = 0;
    int32_t nSndQueue = 0;
    ASSERT_IN(FUNCTION, 0 == getOptSndBuf(nSndBuf));
    (void)getSndQueue(nSndQueue); // 0 where the kernel can't tell
    int32_t nRcvBuf = 0;
    int32_t nRcvQueue = 0;
    ASSERT_IN(FUNCTION, 0 == getOptRcvBuf(nRcvBuf));
    (void)getRcvQueue(nRcvQueue); // e.g. of a listener
    bool bBlock = false;
    ASSERT_IN(FUNCTION, 0 == getOptBlock(bBlock));
    SocketAddress local;
    (void)getLocalSockAddr(local); // logged there, printed empty
    SocketAddress remote;
    (void)getRemoteSockAddr(remote); // likewise, e.g. not connected

    LOG(7, "*****************  socket:%d option display  ***************** \n", m_fd);
    LOG(7, "* getsockname IP:%s port:%d \n", local.acIp, local.u16Port);
    LOG(7, "* getpeername IP:%s port:%d \n", remote.acIp, remote.u16Port);
    LOG(7, "* bReuse:%d \n", bReuse ? 1 : 0);
    LOG(7, "* bLingerOnOff:%d nLinger:%d(s) \n", bLingerOnOff ? 1 : 0, nLinger);
    LOG(7, "* nSndTimeO:%d(ms)\n", nSndTimeO);
    LOG(7, "* nRcvTimeO:%d(ms)\n", nRcvTimeO);
    LOG(7, "* nSndBuf:%d remain:%d\n", nSndBuf, nSndQueue);
    LOG(7, "* nRcvBuf:%d remain:%d\n", nRcvBuf, nRcvQueue);
    LOG(7, "* bBlock:%d \n", bBlock ? 1 : 0);
    LOG(7, "************************************************************** \n");
}
