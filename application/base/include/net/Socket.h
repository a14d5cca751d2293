// An IPv4 socket: options, waits, exact and timed transfers, with every failure in the log.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/types.h>
#include <sys/uio.h>

#include "Mutex.h"
#include "Time.h"

/** An IPv4 address as people read it; empty and 0 when unknown. */
struct SocketAddress
{
    char acIp[INET_ADDRSTRLEN] = ""; // dotted
    uint16_t u16Port = 0;            // host order
};

/** One network interface; a field that the kernel would not give is empty or 0. */
struct InterfaceRecord
{
    std::string strName;
    std::string strAddress; // dotted
    std::string strNetmask; // dotted
    int32_t s32Mtu = 0;
    std::string strHardwareAddress; // "%02x:%02x:%02x:%02x:%02x:%02x"
};

/**
 * A descriptor with the socket operations of this system.
 *
 * It does not own the descriptor: copies share it, the destructor leaves it open, and the class
 * that holds the socket says who closes it. A copy has locks of its own.
 *
 * Operations return 0 for success and -1 for failure unless they say otherwise; without a
 * descriptor they return -1 at once, unlogged. A failing call is logged at level 2 under the source
 * name "Socket" and the operation's name; options log at level 7. No lock is held while logging, so
 * a log sink may use the same socket.
 *
 * Any number of threads may read and write: reads wait for one another, writes likewise, each for
 * the whole operation with its sleeps. Nobody may create, accept into, assign or close the object
 * meanwhile. Lengths are never negative.
 */
class Socket
{
public:
    Socket() = default;
    /** A view of a descriptor that somebody else owns; -1 for none. */
    explicit Socket(int nFd) : m_fd(nFd) {}
    Socket(const Socket& other) : m_fd(other.m_fd) {}
    Socket& operator=(const Socket& other);
    virtual ~Socket() = default;

    bool operator==(const Socket& other) const
    {
        return m_fd == other.m_fd;
    }
    bool operator<(const Socket& other) const
    {
        return m_fd < other.m_fd;
    }
    bool operator>(const Socket& other) const
    {
        return m_fd > other.m_fd;
    }

    bool isValid() const
    {
        return -1 != m_fd;
    }
    int getFd() const
    {
        return m_fd;
    }

    /** @param pIp  dotted (inet_addr(3)); null means every local address */
    int bind(const char* pIp, uint16_t u16Port);

    /**
     * @return -1, unlogged, also when the text is no address; a non-blocking connect that is in
     *         progress is a failure (EINPROGRESS)
     */
    int connect(const char* pIp, uint16_t u16Port);
    int connect(const sockaddr_in& address);

    /** getsockname(2) and getpeername(2). */
    int getLocalSockAddr(sockaddr_in& address);
    int getRemoteSockAddr(sockaddr_in& address);
    /** The same as text, empty after a failure. */
    int getLocalSockAddr(SocketAddress& address);
    int getRemoteSockAddr(SocketAddress& address);

    /** @return -1 when the text is no dotted address (inet_pton(3)) */
    static int toSockAddr(const char* pIp, uint16_t u16Port, sockaddr_in& address);
    static void fromSockAddr(const sockaddr_in& address, SocketAddress& text);

    /** Close and forget the descriptor. @return 0 also when there was none, unlogged */
    int close();

    /** @param nHow  SHUT_RD, SHUT_WR, SHUT_RDWR. @return the platform's result; 0 without one */
    int shutdown(int nHow);

    /** @return true when ready or in error (no descriptor included), false on time-out */
    bool waitReadable(const Time& timeout) const;
    bool waitWritable(const Time& timeout) const;

    /** Bind although earlier connections of the port still linger (SO_REUSEADDR). */
    int setOptReuseAddr(bool bReuse);
    int getOptReuseAddr(bool& bReuse);
    /** How long close() waits for unsent data (SO_LINGER); off, it does not wait. */
    int setOptLinger(bool bOnOff, int32_t nSeconds);
    int getOptLinger(bool& bOnOff, int32_t& nSeconds);
    /** Deliberate: the option length is 4, so Linux refuses every value with EINVAL. */
    int setOptSndTimeO(int32_t nMs);
    /** The first four bytes of the kernel's time structure. */
    int getOptSndTimeO(int32_t& nMs);
    /** As the two for sending. */
    int setOptRcvTimeO(int32_t nMs);
    int getOptRcvTimeO(int32_t& nMs);
    /** Bytes; the kernel doubles what is set (socket(7)) and reads back the doubled value. */
    virtual int setOptRcvBuf(int32_t nSize);
    virtual int setOptSndBuf(int32_t nSize);
    int getOptSndBuf(int32_t& nSize);
    int getOptRcvBuf(int32_t& nSize);
    /** Hops that a packet may make, 1 to 255 (IP_TTL). */
    int setOptTTL(int32_t nTTL);
    int getOptTTL(int32_t& nTTL);
    /**
     * Have the kernel probe a silent peer (SO_KEEPALIVE). Stops at the first failure.
     * @param pValues  three values: seconds idle before the first probe, seconds between probes,
     *                 number of probes; not read when switching off
     */
    int setOptKeepAlive(bool bOn, const int32_t* pValues);
    /** Whether calls wait (O_NONBLOCK cleared); the only options whose failures are not logged. */
    int setOptBlock(bool bBlock);
    int getOptBlock(bool& bBlock);

    /** Bytes not yet acknowledged by the peer, and bytes received but not yet read. Unlogged. */
    int getSndQueue(int32_t& nBytes);
    int getRcvQueue(int32_t& nBytes);

    /** Append one record for each interface with an IPv4 address, ten at most. */
    static int getIfConf(std::vector<InterfaceRecord>& vecRecord);

    /**
     * Receive once.
     * @param nDone  bytes received; 0 with result 0 when there was nothing to read or a signal came
     * @param pAddr  gets the sender's address unless null
     * @return -1 on failure and, unlogged, when the peer has closed
     */
    int read(void* pBuffer, int nLength, int& nDone, sockaddr_in* pAddr = nullptr);

    /** Receive exactly nLength bytes; without data it looks every 3 ms, for ever. */
    int readE(void* pBuffer, const int& nLength, sockaddr_in* pAddr = nullptr);

    /**
     * As readE, looking every 5 ms; -1, unlogged, once the time-out since its start is over.
     * Waiting for another reader counts, and one look is taken in any case.
     */
    int readTimeOut(void* pBuffer, int nLength, int& nDone, sockaddr_in* pAddr,
                    const Time& timeout);

    /**
     * Send once.
     * @param nDone  bytes sent; 0 with result 0 when nothing could be sent: errno then is EAGAIN,
     *               or EINTR after a signal
     * @param pAddr  the receiver unless null
     */
    int write(const void* pData, int nLength, int& nDone, const sockaddr_in* pAddr = nullptr);

    /** As write, of pieces that follow each other, in one call; with the flags of sendmsg(2). */
    int write(iovec* pPieces, int nCount, int& nDone, int nFlags = 0);

    /** Send everything; while the kernel's buffer is full it tries every 3 ms, for ever. */
    int writeE(const void* pData, const int& nLength, const sockaddr_in* pAddr = nullptr);

    /**
     * As writeE, trying every 5 ms; -1, unlogged, once the time-out since its start is over.
     * Waiting for another writer counts, and one attempt is made in any case.
     */
    int writeTimeOut(const void* pData, int nLength, int& nDone, const sockaddr_in* pAddr,
                     const Time& timeout);

protected:
    int m_fd = -1; // -1: none

private:
    int getAddress(int (*pCall)(int, sockaddr*, socklen_t*), sockaddr_in& address, int nLine,
                   const char* pOperation) const;
    int finishWrite(ssize_t nSent, int nErrno, bool bEmpty, int& nDone, int nLine);
    static int report(int nErrno, int nLine, const char* pOperation);
    static int finish(int nResult, int nLine, const char* pOperation);
    static int checkError(int nRet);
    static int getIfConf(int nFd, std::vector<InterfaceRecord>& vecRecord);
    int setOption(int nLevel, int nName, const void* pValue, socklen_t uLength);
    int getOption(int nLevel, int nName, void* pValue, socklen_t uLength);
    int setInt(int nLevel, int nName, int32_t nValue);
    int getInt(int nLevel, int nName, int32_t& nValue);
    ssize_t receiveOnce(void* pBuffer, int nLength, sockaddr_in* pAddr);
    ssize_t sendOnce(const void* pData, int nLength, const sockaddr_in* pAddr);

    // Both: 0, REFUSED for what is not logged, or the errno value of the failure. They add to
    // nDone and go on behind what it counts.
    int receiveAll(void* pBuffer, int nLength, int& nDone, sockaddr_in* pAddr, const Time* pTimeout)
        EXCLUDES(m_readMutex);
    int sendAll(const void* pData, int nLength, int& nDone, const sockaddr_in* pAddr,
                const Time* pTimeout) EXCLUDES(m_writeMutex);

    Mutex m_writeMutex{MUTEX_TYPE_NORMAL}; // one write operation at a time; nothing taken inside
    Mutex m_readMutex{MUTEX_TYPE_NORMAL};  // one read operation at a time; nothing taken inside
};
