// Socket: options, queue queries and the interface list.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Descriptors.h"
#include "EventBus.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "Socket.h"

namespace {

using Lines = std::vector<std::string>;

int optionOf(const Socket& socket, int nLevel, int nName)
{
    int nValue = -1;
    socklen_t uLength = sizeof(nValue);
    EXPECT_EQ(0, getsockopt(socket.getFd(), nLevel, nName, &nValue, &uLength));
    return nValue;
}

} // namespace

TEST(SocketOptions, ReuseAddressReadsBack)
{
    NetPair pair;
    bool bReuse = false;

    ASSERT_EQ(0, pair.m_near.setOptReuseAddr(true));
    ASSERT_EQ(0, pair.m_near.getOptReuseAddr(bReuse));
    EXPECT_TRUE(bReuse);
    EXPECT_EQ(1, optionOf(pair.m_near, SOL_SOCKET, SO_REUSEADDR));

    ASSERT_EQ(0, pair.m_near.setOptReuseAddr(false));
    ASSERT_EQ(0, pair.m_near.getOptReuseAddr(bReuse));
    EXPECT_FALSE(bReuse);
}

TEST(SocketOptions, LingerReadsBack)
{
    NetPair pair;
    bool bOnOff = false;
    int32_t nSeconds = 0;

    ASSERT_EQ(0, pair.m_near.setOptLinger(true, 7));
    ASSERT_EQ(0, pair.m_near.getOptLinger(bOnOff, nSeconds));
    EXPECT_TRUE(bOnOff);
    EXPECT_EQ(7, nSeconds);

    ASSERT_EQ(0, pair.m_near.setOptLinger(false, 0));
    ASSERT_EQ(0, pair.m_near.getOptLinger(bOnOff, nSeconds));
    EXPECT_FALSE(bOnOff);
}

TEST(SocketOptions, DeliberateTimeOutsInMillisecondsAreRefused)
{
    NetPair pair;
    int32_t nMs = -1;
    LogCapture log;
    const Lines refusal = {"[debug] [Socket ] [checkError] optlen  invalid  in  setsockopt().\n",
                           "[debug] [Socket ] [checkError] nRet:-1  errno:22\n"};

    EXPECT_EQ(-1, pair.m_near.setOptSndTimeO(1000));
    EXPECT_EQ(refusal, takeLines(log));
    EXPECT_EQ(-1, pair.m_near.setOptRcvTimeO(1000));
    EXPECT_EQ(refusal, takeLines(log));

    EXPECT_EQ(0, pair.m_near.getOptSndTimeO(nMs));
    EXPECT_EQ(0, nMs);
    nMs = -1;
    EXPECT_EQ(0, pair.m_near.getOptRcvTimeO(nMs));
    EXPECT_EQ(0, nMs);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketOptions, BufferSizesReadBackDoubled)
{
    NetPair pair;
    Socket plain(pair.m_near.getFd()); // not TcpSocket's correction
    int32_t nSize = 0;

    ASSERT_EQ(0, plain.setOptSndBuf(20000));
    ASSERT_EQ(0, plain.getOptSndBuf(nSize));
    EXPECT_EQ(40000, nSize); // socket(7)
    ASSERT_EQ(0, plain.setOptRcvBuf(30000));
    ASSERT_EQ(0, plain.getOptRcvBuf(nSize));
    EXPECT_EQ(60000, nSize);
}

TEST(SocketOptions, TimeToLiveReadsBack)
{
    NetPair pair;
    int32_t nTTL = 0;

    ASSERT_EQ(0, pair.m_near.setOptTTL(13));
    ASSERT_EQ(0, pair.m_near.getOptTTL(nTTL));

    EXPECT_EQ(13, nTTL);
    EXPECT_EQ(13, optionOf(pair.m_near, IPPROTO_IP, IP_TTL));
}

TEST(SocketOptions, KeepAliveSetsAllFour)
{
    NetPair pair;
    const int32_t anValues[] = {5, 1, 2};

    ASSERT_EQ(0, pair.m_near.setOptKeepAlive(true, anValues));

    EXPECT_EQ(1, optionOf(pair.m_near, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(5, optionOf(pair.m_near, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(1, optionOf(pair.m_near, IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(2, optionOf(pair.m_near, IPPROTO_TCP, TCP_KEEPCNT));

    ASSERT_EQ(0, pair.m_near.setOptKeepAlive(false, nullptr));
    EXPECT_EQ(0, optionOf(pair.m_near, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(5, optionOf(pair.m_near, IPPROTO_TCP, TCP_KEEPIDLE));
}

TEST(SocketOptions, KeepAliveStopsAtTheFirstFailure)
{
    NetPair pair;
    const int32_t anValues[] = {5, 0, 2}; // no interval of 0: tcp(7)
    const int nCountBefore = optionOf(pair.m_near, IPPROTO_TCP, TCP_KEEPCNT);
    LogCapture log;

    EXPECT_EQ(-1, pair.m_near.setOptKeepAlive(true, anValues));

    EXPECT_EQ(1U, takeLines(log, "nRet:-1  errno:22\n").size());
    EXPECT_EQ(5, optionOf(pair.m_near, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_NE(2, nCountBefore);
    EXPECT_EQ(nCountBefore, optionOf(pair.m_near, IPPROTO_TCP, TCP_KEEPCNT));
}

TEST(SocketOptions, BlockingReadsBack)
{
    NetPair pair;
    bool bBlock = false;
    char cByte = 0;

    ASSERT_EQ(0, pair.m_near.getOptBlock(bBlock));
    EXPECT_TRUE(bBlock);

    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    ASSERT_EQ(0, pair.m_near.getOptBlock(bBlock));
    EXPECT_FALSE(bBlock);
    EXPECT_EQ(-1, recv(pair.m_near.getFd(), &cByte, 1, 0));
    EXPECT_EQ(EAGAIN, errno);

    ASSERT_EQ(0, pair.m_near.setOptBlock(true));
    ASSERT_EQ(0, pair.m_near.getOptBlock(bBlock));
    EXPECT_TRUE(bBlock);
}

TEST(SocketOptions, BlockingThatCantBeReadOrSetStaysUnlogged)
{
    NetPair pair;
    LogCapture log;
    bool bBlock = false;
    for (const char* pPlan : {"fcntl:1:EBADF", "fcntl:2:EBADF"}) { // read, then set
        FaultScope fault(pPlan);
        EXPECT_EQ(-1, pair.m_near.setOptBlock(false)) << pPlan;
    }
    {
        FaultScope fault("fcntl:1:EBADF");
        EXPECT_EQ(-1, pair.m_near.getOptBlock(bBlock));
    }

    ASSERT_EQ(0, pair.m_near.getOptBlock(bBlock));
    EXPECT_TRUE(bBlock);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketOptions, EachRefusalHasItsText)
{
    struct Case
    {
        int nError;
        const char* pText;
    };
    const Case aCase[] = {
        {EBADF, "The argument sockfd is not a valid descriptor.\n"},
        {EFAULT,
         "The address pointed to by optval is not in a valid part of the process address space.\n"},
        {EINVAL, "optlen  invalid  in  setsockopt().\n"},
        {ENOPROTOOPT, "The option is unknown at the level indicated.\n"},
        {ENOTSOCK, "The file descriptor sockfd does not refer to a socket.\n"},
    };
    NetPair pair;
    LogCapture log;
    int32_t nValue = 0;
    for (const Case& entry : aCase) {
        for (const char* pCall : {"setsockopt", "getsockopt"}) {
            const std::string strPlan = std::string(pCall) + ":1:" + std::to_string(entry.nError);
            FaultScope fault(strPlan.c_str());

            EXPECT_EQ(-1,
                      ('s' == *pCall) ? pair.m_near.setOptTTL(9) : pair.m_near.getOptTTL(nValue));

            EXPECT_EQ(Lines({std::string("[debug] [Socket ] [checkError] ") + entry.pText,
                             "[debug] [Socket ] [checkError] nRet:-1  errno:" +
                                 std::to_string(entry.nError) + "\n"}),
                      takeLines(log));
        }
    }

    FaultScope fault("setsockopt:1:ENOMEM"); // one without a text
    EXPECT_EQ(-1, pair.m_near.setOptTTL(9));
    EXPECT_EQ(Lines({"[debug] [Socket ] [checkError] nRet:-1  errno:12\n"}), takeLines(log));
}

TEST(SocketOptions, QueuesAreCounted)
{
    NetPair pair;
    int32_t nBytes = -1;

    ASSERT_EQ(0, pair.m_near.getRcvQueue(nBytes));
    EXPECT_EQ(0, nBytes);
    ASSERT_EQ(0, pair.m_near.getSndQueue(nBytes));
    EXPECT_EQ(0, nBytes);

    ASSERT_EQ(5, send(pair.m_far.getFd(), "abcde", 5, 0));
    ASSERT_TRUE(pair.m_near.waitReadable(Time(30, 0)));
    ASSERT_EQ(0, pair.m_near.getRcvQueue(nBytes));
    EXPECT_EQ(5, nBytes);

    (void)fillUp(pair.m_near);
    ASSERT_EQ(0, pair.m_near.getSndQueue(nBytes));
    EXPECT_GT(nBytes, 0);
}

TEST(SocketOptions, InterfacesAreListed)
{
    std::vector<InterfaceRecord> vecRecord(1); // the list grows

    ASSERT_EQ(0, Socket::getIfConf(vecRecord));

    int32_t s32LoopbackMtu = 0;
    std::ifstream("/sys/class/net/lo/mtu") >> s32LoopbackMtu;
    const InterfaceRecord* pLoopback = nullptr;
    for (const InterfaceRecord& record : vecRecord) {
        if ("127.0.0.1" == record.strAddress) {
            pLoopback = &record;
        }
    }
    EXPECT_EQ("", vecRecord[0].strAddress);
    ASSERT_NE(nullptr, pLoopback);
    EXPECT_EQ("lo", pLoopback->strName);
    EXPECT_EQ("255.0.0.0", pLoopback->strNetmask);
    EXPECT_EQ(s32LoopbackMtu, pLoopback->s32Mtu);
    EXPECT_EQ("00:00:00:00:00:00", pLoopback->strHardwareAddress);
}

TEST(SocketOptions, InterfacesAreListedByWayOfDescriptorZeroToo)
{
    const ZeroIsFree zero;
    std::vector<InterfaceRecord> vecRecord;

    EXPECT_EQ(0, Socket::getIfConf(vecRecord));

    EXPECT_FALSE(vecRecord.empty());
    EXPECT_FALSE(isOpen(0));
}

TEST(SocketOptions, HardwareAddressesAreHexadecimal)
{
    std::vector<InterfaceRecord> vecRecord;
    ASSERT_EQ(0, Socket::getIfConf(vecRecord));
    for (const InterfaceRecord& record : vecRecord) {
        std::string strAddress;
        std::ifstream("/sys/class/net/" + record.strName + "/address") >> strAddress;
        if (17 == strAddress.size()) {
            EXPECT_EQ(strAddress, record.strHardwareAddress) << record.strName;
        }
    }
}

TEST(SocketOptions, ChildrenGetNoDescriptorOfTheInterfacesQuery)
{
    struct Sink
    {
        int onLog(Event*)
        {
            for (const auto& [nFd, strTarget] : openDescriptors("socket:")) {
                if (0 == before.count(nFd)) {
                    ++nSeen;
                    EXPECT_EQ(FD_CLOEXEC, fcntl(nFd, F_GETFD));
                }
            }
            return 0;
        }
        std::map<int, std::string> before;
        int nSeen;
    };
    LogCapture log;
    Sink sink{openDescriptors("socket:"), 0};
    EventBus<LogEvent>::subscribe(&sink, &Sink::onLog);
    std::vector<InterfaceRecord> vecRecord;
    {
        FaultScope fault("ioctl:1:EIO"); // its line comes while the query is under way
        EXPECT_EQ(-1, Socket::getIfConf(vecRecord));
    }
    EventBus<LogEvent>::unsubscribe(&sink, &Sink::onLog);

    EXPECT_EQ(1, sink.nSeen);
}

TEST(SocketOptions, InterfaceFailuresAreLogged)
{
    LogCapture log;
    std::vector<InterfaceRecord> vecRecord;
    {
        FaultScope fault("ioctl:1:EIO");
        EXPECT_EQ(-1, Socket::getIfConf(vecRecord));
        EXPECT_EQ(Lines({std::string("[error] [Socket ] [getIfConf] Error:(") + strerror(EIO) +
                         ")   ioctl IFCONF\n"}),
                  takeLines(log));
        EXPECT_TRUE(vecRecord.empty());
    }

    FaultScope fault("ioctl:2-4:EIO"); // the first interface
    EXPECT_EQ(0, Socket::getIfConf(vecRecord));
    EXPECT_EQ(Lines({"[error] [Socket ] [getIfConf] Error: 5, cannot get mask\n",
                     "[error] [Socket ] [getIfConf] Error: 5, cannot get MTU\n",
                     "[error] [Socket ] [getIfConf] Error: 5, cannot get SIOCGIFHWADDR\n"}),
              takeLines(log));
    ASSERT_FALSE(vecRecord.empty());
    EXPECT_NE("", vecRecord[0].strAddress);
    EXPECT_EQ("", vecRecord[0].strNetmask);
    EXPECT_EQ(0, vecRecord[0].s32Mtu);
    EXPECT_EQ("", vecRecord[0].strHardwareAddress);
}
