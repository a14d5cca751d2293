// Socket: addresses, options, transfers, and what is logged when they fail.
#include "Socket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "EventBus.h"
#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "LogEvent.h"
#include "NetPair.h"

namespace {

using Lines = std::vector<std::string>;

std::string plan(const char* pCall, int nFd, const char* pWhich, int nError)
{
    char acPlan[80];
    snprintf(acPlan, sizeof(acPlan), "%s=%d:%s:%d", pCall, nFd, pWhich, nError);
    return acPlan;
}

Socket datagramSocket()
{
    return Socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

struct ErrorLine
{
    int nError;
    const char* pLevel;
    const char* pText;
};

const ErrorLine REPORTED[] = {
    {EACCES, "[error]",
     "EACCES: Write permission is denied on the destination socket file,  or  search permission is denied for one of the directories the path prefix.\n"},
    {EBADF, "[error]", "EBADF:An invalid descriptor was specified.\n"},
    {ECONNRESET, "[error]", "ECONNRESET:Connection reset by peer.\n"},
    {EDESTADDRREQ, "[error]",
     "EDESTADDRREQ:The socket is not connection-mode, and no peer address is set.\n"},
    {EFAULT, "[error]", "EFAULT An invalid user space address was specified for an argument.\n"},
    {EINVAL, "[error]", "EINVAL Invalid argument passed.\n"},
    {EISCONN, "[error]",
     "EISCONN The connection-mode socket was connected already but a recipient was specified.\n"},
    {EMSGSIZE, "[error]",
     "EMSGSIZE The socket type requires that message be sent atomically, and the size of the message to be sent made this impossible.\n"},
    {ENOBUFS, "[error]",
     "ENOBUFS The output queue for a network interface was full.  This generally indicates that the interface has stopped sending,  but  may  becaused  by  transient congestion.  (Normally, this does not occur in Linux.  Packets are just silently dropped when a device queue overflows.)\n"},
    {ENOMEM, "[error]", "ENOMEM No memory available.\n"},
    {ENOTCONN, "[error]", "ENOTCONN The socket is not connected, and no target has been given.\n"},
    {ENOTSOCK, "[error]", "ENOTSOCK The file descriptor sockfd does not refer to a socket.\n"},
    {EOPNOTSUPP, "[error]",
     "EOPNOTSUPP Some bit in the flags argument is inappropriate for the socket type.\n"},
    {EPIPE, "[error]",
     "EPIPE The local end has been shut down on a connection oriented socket.  In this case, the process will also receive  a  SIGPIPE  unless MSG_NOSIGNAL is set.\n"},
    {ETIMEDOUT, "[error]", "Unknow socket error.\n"},
};

// Only operations that don't retry these can report them.
const ErrorLine INTERRUPTIONS[] = {
    {EINTR, "[error]",
     "EINTR  A signal occurred before any data was transmitted; see signal(7).\n"},
    {EAGAIN, "[warn ]", "EWOULDBLOCK or EAGAIN\n"},
};

Lines lineOf(const ErrorLine& entry, const char* pOperation)
{
    return {std::string(entry.pLevel) + " [Socket ] [" + pOperation + "] " + entry.pText};
}

} // namespace

TEST(Socket, EachErrorOfAReadHasItsText)
{
    NetPair pair;
    LogCapture log;
    char acBuffer[4];
    int nDone = 0;
    for (const ErrorLine& entry : REPORTED) {
        FaultScope fault(plan("recv", pair.m_near.getFd(), "1", entry.nError).c_str());

        EXPECT_EQ(-1, pair.m_near.read(acBuffer, sizeof(acBuffer), nDone));

        EXPECT_EQ(lineOf(entry, "read"), takeLines(log)) << entry.nError;
    }
}

TEST(Socket, ConnectReportsInterruptionsToo)
{
    NetPair pair;
    LogCapture log;
    for (const ErrorLine& entry : INTERRUPTIONS) {
        FaultScope fault(plan("connect", pair.m_near.getFd(), "1", entry.nError).c_str());

        EXPECT_EQ(-1, pair.m_near.connect("127.0.0.1", 1));

        EXPECT_EQ(lineOf(entry, "connect"), takeLines(log)) << entry.nError;
    }
}

TEST(Socket, EachOperationReportsUnderItsName)
{
    NetPair pair;
    Socket& socket = pair.m_near;
    const int nFd = socket.getFd();
    LogCapture log;
    char acBuffer[4] = "abc";
    int nDone = 0;
    sockaddr_in address{};
    std::vector<InterfaceRecord> vecRecord;
    const Time timeout(1, 0);
    struct Case
    {
        const char* pCall;
        const char* pOperation;
        std::function<int()> operation;
    };
    const Case aCase[] = {
        {"bind", "bind", [&] { return socket.bind("127.0.0.1", 0); }},
        {"connect", "connect", [&] { return socket.connect("127.0.0.1", 1); }},
        {"getsockname", "getLocalSockAddr", [&] { return socket.getLocalSockAddr(address); }},
        {"getpeername", "getRemoteSockAddr", [&] { return socket.getRemoteSockAddr(address); }},
        {"recv", "read", [&] { return socket.read(acBuffer, 4, nDone); }},
        {"recvfrom", "read", [&] { return socket.read(acBuffer, 4, nDone, &address); }},
        {"recv", "readE", [&] { return socket.readE(acBuffer, 4); }},
        {"recv", "readTimeOut",
         [&] { return socket.readTimeOut(acBuffer, 4, nDone, nullptr, timeout); }},
        {"send", "write", [&] { return socket.write(acBuffer, 4, nDone); }},
        {"sendto", "write", [&] { return socket.write(acBuffer, 4, nDone, &address); }},
        {"send", "writeE", [&] { return socket.writeE(acBuffer, 4); }},
        {"send", "writeTimeOut",
         [&] { return socket.writeTimeOut(acBuffer, 4, nDone, nullptr, timeout); }},
    };
    for (const Case& entry : aCase) {
        FaultScope fault(plan(entry.pCall, nFd, "1", ECONNRESET).c_str());

        EXPECT_EQ(-1, entry.operation());

        EXPECT_EQ(lineOf({ECONNRESET, "[error]", "ECONNRESET:Connection reset by peer.\n"},
                         entry.pOperation),
                  takeLines(log));
    }

    FaultScope fault("socket:1:ENOMEM");
    EXPECT_EQ(-1, Socket::getIfConf(vecRecord));
    EXPECT_EQ(lineOf({ENOMEM, "[error]", "ENOMEM No memory available.\n"}, "getIfConf"),
              takeLines(log));
}

TEST(Socket, EveryOperationRefusesAMissingDescriptor)
{
    Socket socket;
    LogCapture log;
    char acBuffer[4] = "abc";
    int nDone = 7;
    bool bFlag = false;
    int32_t nValue = 0;
    sockaddr_in raw{};
    SocketAddress text;
    const int32_t anKeepAlive[] = {1, 1, 1};
    const Time timeout(1, 0);

    EXPECT_FALSE(socket.isValid());
    EXPECT_EQ(-1, socket.bind(nullptr, 0));
    EXPECT_EQ(-1, socket.connect("127.0.0.1", 1));
    EXPECT_EQ(-1, socket.connect(raw));
    EXPECT_EQ(-1, socket.getLocalSockAddr(raw));
    EXPECT_EQ(-1, socket.getRemoteSockAddr(raw));
    EXPECT_EQ(-1, socket.getLocalSockAddr(text));
    EXPECT_EQ(-1, socket.getRemoteSockAddr(text));
    EXPECT_EQ(-1, socket.read(acBuffer, 4, nDone));
    EXPECT_EQ(0, nDone);
    EXPECT_EQ(-1, socket.readE(acBuffer, 4));
    EXPECT_EQ(-1, socket.readTimeOut(acBuffer, 4, nDone, nullptr, timeout));
    EXPECT_EQ(-1, socket.write(acBuffer, 4, nDone));
    EXPECT_EQ(-1, socket.writeE(acBuffer, 4));
    EXPECT_EQ(-1, socket.writeTimeOut(acBuffer, 4, nDone, nullptr, timeout));
    EXPECT_EQ(-1, socket.setOptReuseAddr(true));
    EXPECT_EQ(-1, socket.getOptReuseAddr(bFlag));
    EXPECT_EQ(-1, socket.setOptLinger(true, 1));
    EXPECT_EQ(-1, socket.getOptLinger(bFlag, nValue));
    EXPECT_EQ(-1, socket.setOptSndTimeO(1));
    EXPECT_EQ(-1, socket.getOptSndTimeO(nValue));
    EXPECT_EQ(-1, socket.setOptRcvTimeO(1));
    EXPECT_EQ(-1, socket.getOptRcvTimeO(nValue));
    EXPECT_EQ(-1, socket.setOptSndBuf(4096));
    EXPECT_EQ(-1, socket.getOptSndBuf(nValue));
    EXPECT_EQ(-1, socket.setOptRcvBuf(4096));
    EXPECT_EQ(-1, socket.getOptRcvBuf(nValue));
    EXPECT_EQ(-1, socket.setOptTTL(1));
    EXPECT_EQ(-1, socket.getOptTTL(nValue));
    EXPECT_EQ(-1, socket.setOptKeepAlive(true, anKeepAlive));
    EXPECT_EQ(-1, socket.setOptBlock(true));
    EXPECT_EQ(-1, socket.getOptBlock(bFlag));
    EXPECT_EQ(-1, socket.getSndQueue(nValue));
    EXPECT_EQ(-1, socket.getRcvQueue(nValue));
    EXPECT_TRUE(socket.waitReadable(timeout));
    EXPECT_TRUE(socket.waitWritable(timeout));
    EXPECT_EQ(0, socket.shutdown(SHUT_RDWR));
    EXPECT_EQ(0, socket.close());
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(Socket, BindTakesTextOrEveryAddress)
{
    Socket socket = datagramSocket();
    SocketAddress address;

    ASSERT_EQ(0, socket.bind("127.0.0.1", 0));
    ASSERT_EQ(0, socket.getLocalSockAddr(address));
    EXPECT_STREQ("127.0.0.1", address.acIp);
    const uint16_t u16Port = address.u16Port;
    EXPECT_EQ(portOf(socket.getFd()), u16Port);
    ASSERT_EQ(0, socket.close());

    socket = datagramSocket();
    ASSERT_EQ(0, socket.bind(nullptr, u16Port));
    ASSERT_EQ(0, socket.getLocalSockAddr(address));
    EXPECT_STREQ("0.0.0.0", address.acIp);
    EXPECT_EQ(u16Port, address.u16Port);
    ASSERT_EQ(0, socket.close());
}

TEST(Socket, BindToATakenPortIsAnUnknownError)
{
    Socket first = datagramSocket();
    Socket second = datagramSocket();
    ASSERT_EQ(0, first.bind("127.0.0.1", 0));
    LogCapture log;

    EXPECT_EQ(-1, second.bind("127.0.0.1", portOf(first.getFd())));

    EXPECT_EQ(Lines({"[error] [Socket ] [bind] Unknow socket error.\n"}), takeLines(log));
    (void)first.close();
    (void)second.close();
}

TEST(Socket, ConnectTakesTextOrAddress)
{
    Socket receiver = datagramSocket();
    ASSERT_EQ(0, receiver.bind("127.0.0.1", 0));
    const uint16_t u16Port = portOf(receiver.getFd());
    sockaddr_in raw{};
    SocketAddress peer;

    Socket byText = datagramSocket();
    ASSERT_EQ(0, byText.connect("127.0.0.1", u16Port));
    ASSERT_EQ(0, byText.getRemoteSockAddr(peer));
    EXPECT_STREQ("127.0.0.1", peer.acIp);
    EXPECT_EQ(u16Port, peer.u16Port);

    Socket byAddress = datagramSocket();
    ASSERT_EQ(0, Socket::toSockAddr("127.0.0.1", u16Port, raw));
    ASSERT_EQ(0, byAddress.connect(raw));
    ASSERT_EQ(0, byAddress.getRemoteSockAddr(raw));
    EXPECT_EQ(htons(u16Port), raw.sin_port);
    EXPECT_EQ(htonl(INADDR_LOOPBACK), raw.sin_addr.s_addr);

    EXPECT_EQ(-1, byText.connect("no address", u16Port));
    EXPECT_EQ(-1, byText.connect(nullptr, u16Port));
    (void)receiver.close();
    (void)byText.close();
    (void)byAddress.close();
}

TEST(Socket, AddressesConvertBothWays)
{
    sockaddr_in raw{};
    SocketAddress text;

    ASSERT_EQ(0, Socket::toSockAddr("192.168.100.200", 8329, raw));
    EXPECT_EQ(AF_INET, raw.sin_family);
    EXPECT_EQ(htons(8329), raw.sin_port);
    EXPECT_EQ(htonl(0xC0A864C8U), raw.sin_addr.s_addr);

    Socket::fromSockAddr(raw, text);
    EXPECT_STREQ("192.168.100.200", text.acIp);
    EXPECT_EQ(8329, text.u16Port);

    ASSERT_EQ(0, Socket::toSockAddr("255.255.255.255", 65535, raw));
    Socket::fromSockAddr(raw, text);
    EXPECT_STREQ("255.255.255.255", text.acIp); // fills the text's sixteen characters
    EXPECT_EQ(-1, Socket::toSockAddr("1.2.3", 1, raw));
}

TEST(Socket, AddressThatCantBeAskedForIsEmpty)
{
    Socket socket = datagramSocket();
    SocketAddress address;
    snprintf(address.acIp, sizeof(address.acIp), "1.1.1.1");
    address.u16Port = 1;
    LogCapture log;

    EXPECT_EQ(-1, socket.getRemoteSockAddr(address));

    EXPECT_STREQ("", address.acIp);
    EXPECT_EQ(0, address.u16Port);
    EXPECT_EQ(Lines({"[error] [Socket ] [getRemoteSockAddr] ENOTCONN The socket is not connected, "
                     "and no target has been given.\n"}),
              takeLines(log));
    (void)socket.close();
}

TEST(Socket, CopiesShareTheDescriptorAndNobodyClosesItUnasked)
{
    int nFd = -1;
    {
        Socket socket = datagramSocket();
        nFd = socket.getFd();
        const Socket copy(socket);
        Socket assigned;
        assigned = copy;
        EXPECT_EQ(nFd, assigned.getFd());
        EXPECT_TRUE(assigned == socket);
    }
    EXPECT_TRUE(isOpen(nFd));

    Socket view(nFd);
    EXPECT_EQ(0, view.close());

    EXPECT_FALSE(isOpen(nFd));
    EXPECT_FALSE(view.isValid());
    EXPECT_EQ(0, view.close());
}

TEST(Socket, SocketsCompareByDescriptor)
{
    const Socket three(3);
    const Socket four(4);
    EXPECT_TRUE(three == Socket(3));
    EXPECT_FALSE(three == four);
    EXPECT_TRUE(three < four);
    EXPECT_FALSE(four < three);
    EXPECT_TRUE(four > three);
    EXPECT_FALSE(three > three);
}

TEST(Socket, ShutdownPassesThrough)
{
    NetPair pair;
    char cByte = 0;

    EXPECT_EQ(0, pair.m_near.shutdown(SHUT_WR));

    EXPECT_EQ(0, recv(pair.m_far.getFd(), &cByte, 1, 0));
    Socket unconnected = datagramSocket();
    EXPECT_EQ(-1, unconnected.shutdown(SHUT_RD));
    (void)unconnected.close();
}

TEST(Socket, WaitsSeeReadinessAndTimeOut)
{
    NetPair pair;
    EXPECT_FALSE(pair.m_near.waitReadable(Time(0, 1000)));
    EXPECT_TRUE(pair.m_near.waitWritable(Time(0, 1000)));

    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    EXPECT_TRUE(pair.m_near.waitReadable(Time(30, 0)));

    EXPECT_TRUE(eventually([&] { // what was full may have room again once the peer has it
        (void)fillUp(pair.m_near);
        return !pair.m_near.waitWritable(Time(0, 1000));
    }));
}

TEST(Socket, DescriptorsAboveASelectSetWork)
{
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const rlimit old = limit;
    limit.rlim_cur = 2048;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    NetPair pair;
    const int nHigh = fcntl(pair.m_near.getFd(), F_DUPFD_CLOEXEC, 1500);
    ASSERT_GE(nHigh, 1500);
    TcpSocket high(nHigh);

    EXPECT_FALSE(high.waitReadable(Time(0, 1000)));
    EXPECT_TRUE(high.waitWritable(Time(0, 1000)));
    EXPECT_EQ(2, high.checkState());
    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    EXPECT_TRUE(high.waitReadable(Time(30, 0)));
    EXPECT_EQ(3, high.checkState());

    (void)high.close();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &old));
}

TEST(Socket, ReadGivesWhatIsThere)
{
    NetPair pair;
    char acBuffer[8] = {0};
    int nDone = 99;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    LogCapture log;

    EXPECT_EQ(0, pair.m_near.read(acBuffer, sizeof(acBuffer), nDone)); // nothing yet
    EXPECT_EQ(0, nDone);

    ASSERT_EQ(3, send(pair.m_far.getFd(), "abc", 3, 0));
    ASSERT_TRUE(pair.m_near.waitReadable(Time(30, 0)));
    EXPECT_EQ(0, pair.m_near.read(acBuffer, sizeof(acBuffer), nDone));
    EXPECT_EQ(3, nDone);
    EXPECT_STREQ("abc", acBuffer);

    FaultScope fault(plan("recv", pair.m_near.getFd(), "1", EINTR).c_str());
    EXPECT_EQ(0, pair.m_near.read(acBuffer, sizeof(acBuffer), nDone));
    EXPECT_EQ(0, nDone);
    EXPECT_EQ(1U, faultHits());

    (void)pair.m_far.close();
    ASSERT_TRUE(pair.m_near.waitReadable(Time(30, 0)));
    EXPECT_EQ(-1, pair.m_near.read(acBuffer, sizeof(acBuffer), nDone));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(Socket, ReadETakesExactlyTheLength)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    char acBuffer[8] = {0};
    std::thread peer([&] {
        (void)send(pair.m_far.getFd(), "abc", 3, 0);
        int32_t nQueued = -1;
        // The second part comes when the first has been taken.
        EXPECT_TRUE(eventually([&] {
            return 0 == pair.m_far.getSndQueue(nQueued) && 0 == nQueued &&
                   0 == pair.m_near.getRcvQueue(nQueued) && 0 == nQueued;
        }));
        (void)send(pair.m_far.getFd(), "defg", 4, 0);
    });

    EXPECT_EQ(0, pair.m_near.readE(acBuffer, 6));

    peer.join();
    EXPECT_STREQ("abcdef", acBuffer);
    EXPECT_EQ("g", readBytes(pair.m_near, 1));
}

TEST(Socket, ReadEWaitsInStepsOfThreeMillisecondsWithoutEnd)
{
    NetPair pair;
    char acBuffer[4] = {0};
    ASSERT_EQ(3, send(pair.m_far.getFd(), "abc", 3, 0));
    LogCapture log;
    FaultScope fault(plan("recv", pair.m_near.getFd(), "1-200", EAGAIN).c_str());
    const Time start = monotonicNow();

    EXPECT_EQ(0, pair.m_near.readE(acBuffer, 3));

    EXPECT_EQ(200U, faultHits());
    EXPECT_GE(monotonicNow() - start, Time(0, 600000)); // 200 times 3 ms
    EXPECT_STREQ("abc", acBuffer);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(Socket, ReadEGoesOnAfterASignalAndEndsWithThePeer)
{
    NetPair pair;
    char acBuffer[8] = {0};
    ASSERT_EQ(3, send(pair.m_far.getFd(), "abc", 3, 0));
    LogCapture log;
    {
        FaultScope fault(plan("recv", pair.m_near.getFd(), "1-2", EINTR).c_str());
        EXPECT_EQ(0, pair.m_near.readE(acBuffer, 3));
        EXPECT_EQ(2U, faultHits());
    }
    ASSERT_EQ(2, send(pair.m_far.getFd(), "de", 2, 0));
    (void)pair.m_far.close();

    EXPECT_EQ(-1, pair.m_near.readE(acBuffer, 3));

    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(Socket, ReadTimeOutGivesUpAfterTheTimeOut)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    ASSERT_EQ(2, send(pair.m_far.getFd(), "ab", 2, 0));
    char acBuffer[8] = {0};
    int nDone = 99;
    LogCapture log;
    const Time start = monotonicNow();

    EXPECT_EQ(-1, pair.m_near.readTimeOut(acBuffer, 4, nDone, nullptr, Time(0, 50000)));

    EXPECT_GE(monotonicNow() - start, Time(0, 50000));
    EXPECT_EQ(2, nDone);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(Socket, ReadTimeOutCollectsTheLength)
{
    NetPair pair;
    ASSERT_EQ(5, send(pair.m_far.getFd(), "abcde", 5, 0));
    char acBuffer[8] = {0};
    int nDone = 0;
    FaultScope fault((plan("recv", pair.m_near.getFd(), "1", EINTR) + ";" +
                      plan("recv", pair.m_near.getFd(), "1-2", EAGAIN))
                         .c_str());
    const Time start = monotonicNow();

    EXPECT_EQ(0, pair.m_near.readTimeOut(acBuffer, 5, nDone, nullptr, Time(5, 0)));

    EXPECT_GE(monotonicNow() - start, Time(0, 10000)); // twice 5 ms
    EXPECT_EQ(3U, faultHits());
    EXPECT_EQ(5, nDone);
    EXPECT_STREQ("abcde", acBuffer);
}

TEST(Socket, WriteSendsOnce)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    LogCapture log;
    int nDone = 99;

    EXPECT_EQ(0, pair.m_near.write("abc", 3, nDone));
    EXPECT_EQ(3, nDone);
    EXPECT_EQ("abc", readBytes(pair.m_far, 3));

    EXPECT_EQ(0, pair.m_near.write("abc", 0, nDone));
    EXPECT_EQ(0, nDone);

    (void)fillUp(pair.m_near);
    EXPECT_EQ(0, pair.m_near.write("abc", 3, nDone));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(0, nDone);

    FaultScope fault(plan("send", pair.m_near.getFd(), "1", EINTR).c_str());
    EXPECT_EQ(0, pair.m_near.write("abc", 3, nDone));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(0, nDone);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(Socket, WriteECarriesOnUntilAllIsSent)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    shrinkSendBuffer(pair.m_near);
    std::string strSent(300000, '\0');
    for (size_t i = 0; i < strSent.size(); ++i) {
        strSent[i] = static_cast<char>(i * 31 / 7);
    }
    std::string strGot;
    std::thread peer([&] { strGot = readBytes(pair.m_far, strSent.size()); });

    EXPECT_EQ(0, pair.m_near.writeE(strSent.data(), static_cast<int>(strSent.size())));

    peer.join();
    EXPECT_TRUE(strSent == strGot);
    EXPECT_EQ(0, pair.m_near.writeE("abc", 0));
}

TEST(Socket, WriteEWaitsInStepsOfThreeMillisecondsWithoutEnd)
{
    NetPair pair;
    LogCapture log;
    FaultScope fault((plan("send", pair.m_near.getFd(), "1", EINTR) + ";" +
                      plan("send", pair.m_near.getFd(), "1-200", EAGAIN))
                         .c_str());
    const Time start = monotonicNow();

    EXPECT_EQ(0, pair.m_near.writeE("abc", 3));

    EXPECT_EQ(201U, faultHits());
    EXPECT_GE(monotonicNow() - start, Time(0, 600000)); // 200 times 3 ms
    EXPECT_EQ("abc", readBytes(pair.m_far, 3));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(Socket, WriteTimeOutGivesUpAfterTheTimeOut)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    shrinkSendBuffer(pair.m_near);
    const std::string strData(8 * 1024 * 1024, 'x');
    const int nLength = static_cast<int>(strData.size());
    int nDone = 0;
    LogCapture log;
    const Time start = monotonicNow();

    EXPECT_EQ(-1,
              pair.m_near.writeTimeOut(strData.data(), nLength, nDone, nullptr, Time(0, 50000)));

    EXPECT_GE(monotonicNow() - start, Time(0, 50000));
    EXPECT_GT(nDone, 0);
    EXPECT_LT(nDone, nLength);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(Socket, DatagramsCarryAddresses)
{
    Socket receiver = datagramSocket();
    Socket sender = datagramSocket();
    ASSERT_EQ(0, receiver.bind("127.0.0.1", 0));
    ASSERT_EQ(0, sender.bind("127.0.0.1", 0));
    sockaddr_in to{};
    ASSERT_EQ(0, Socket::toSockAddr("127.0.0.1", portOf(receiver.getFd()), to));
    const uint16_t u16SenderPort = htons(portOf(sender.getFd()));
    char acBuffer[3];
    int nDone = 0;

    ASSERT_EQ(0, sender.write("one", 3, nDone, &to));
    sockaddr_in from{};
    ASSERT_EQ(0, receiver.read(acBuffer, 3, nDone, &from));
    EXPECT_EQ("one", std::string(acBuffer, 3));
    EXPECT_EQ(u16SenderPort, from.sin_port);

    ASSERT_EQ(0, sender.writeE("two", 3, &to));
    from = sockaddr_in{};
    ASSERT_EQ(0, receiver.readE(acBuffer, 3, &from));
    EXPECT_EQ("two", std::string(acBuffer, 3));
    EXPECT_EQ(u16SenderPort, from.sin_port);

    ASSERT_EQ(0, sender.writeTimeOut("six", 3, nDone, &to, Time(1, 0)));
    EXPECT_EQ(3, nDone);
    from = sockaddr_in{};
    ASSERT_EQ(0, receiver.readTimeOut(acBuffer, 3, nDone, &from, Time(1, 0)));
    EXPECT_EQ("six", std::string(acBuffer, 3));
    EXPECT_EQ(u16SenderPort, from.sin_port);
    (void)receiver.close();
    (void)sender.close();
}

TEST(Socket, WritersTakeTurnsForWholeOperations)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    shrinkSendBuffer(pair.m_near);
    const size_t uBlock = 60000;
    const std::string strA(uBlock, 'a');
    const std::string strB(uBlock, 'b');
    std::thread a([&] { EXPECT_EQ(0, pair.m_near.writeE(strA.data(), uBlock)); });
    std::thread b([&] { EXPECT_EQ(0, pair.m_near.writeE(strB.data(), uBlock)); });

    const std::string strGot = readBytes(pair.m_far, 2 * uBlock);

    a.join();
    b.join();
    EXPECT_TRUE(strA + strB == strGot || strB + strA == strGot);
}

TEST(Socket, TimeOutRunsWhileAnotherOperationHasTheSocket)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    char cFirst = 'x';
    char cSecond = 'y';
    int nDone = 0;
    const Time timeout(0, 20000);
    struct Case
    {
        const char* pCall;
        std::function<int()> first;
        std::function<int()> second;
    };
    const Case aCase[] = {
        {"recv", [&] { return pair.m_near.readE(&cFirst, 1); },
         [&] { return pair.m_near.readTimeOut(&cSecond, 1, nDone, nullptr, timeout); }},
        {"send", [&] { return pair.m_near.writeE(&cFirst, 1); },
         [&] { return pair.m_near.writeTimeOut(&cSecond, 1, nDone, nullptr, timeout); }},
    };
    for (const Case& entry : aCase) {
        // The first operation holds the socket for 700 steps of 3 ms. The second one finds nothing
        // to do, its time-out over: it must not look again.
        const int nFd = pair.m_near.getFd();
        FaultScope fault((plan(entry.pCall, nFd, "1-700", EAGAIN) + ";" +
                          plan(entry.pCall, nFd, "2", EAGAIN) + ";" +
                          plan(entry.pCall, nFd, "2-", ENOMEM))
                             .c_str());
        std::thread holder([&] { EXPECT_EQ(0, entry.first()); });
        EXPECT_TRUE(eventually([] { return faultHits() > 0; }));

        EXPECT_EQ(-1, entry.second()) << entry.pCall;

        holder.join();
        EXPECT_EQ(701U, faultHits()) << entry.pCall;
        EXPECT_EQ(0, nDone) << entry.pCall;
    }
}

TEST(Socket, NothingToTransferIsATransferToo)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    char cByte = 0;
    int nDone = 99;
    EXPECT_EQ(-1, pair.m_near.readTimeOut(&cByte, 0, nDone, nullptr, Time(0, 20000)));
    EXPECT_EQ(0, nDone);

    Socket receiver = datagramSocket();
    Socket sender = datagramSocket();
    ASSERT_EQ(0, receiver.bind("127.0.0.1", 0));
    sockaddr_in to{};
    ASSERT_EQ(0, Socket::toSockAddr("127.0.0.1", portOf(receiver.getFd()), to));
    FaultScope fault(plan("sendto", sender.getFd(), "1", EAGAIN).c_str());

    EXPECT_EQ(0, sender.writeE("", 0, &to));

    EXPECT_EQ(1U, faultHits());
    EXPECT_TRUE(receiver.waitReadable(Time(0, 1000))) << "an empty datagram";
    (void)receiver.close();
    (void)sender.close();
}

TEST(Socket, LogSinkMayUseTheSocketWhoseFailureItIsTold)
{
    struct Sink
    {
        int onLog(Event*)
        {
            int nDone = 0;
            char acBuffer[1];
            ++nCalls;
            EXPECT_EQ(0, pSocket->write("!", 1, nDone));
            EXPECT_EQ(0, pSocket->read(acBuffer, 1, nDone));
            return 0;
        }
        Socket* pSocket;
        int nCalls;
    };
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    LogCapture log;
    Sink sink{&pair.m_near, 0};
    EventBus<LogEvent>::subscribe(&sink, &Sink::onLog);
    const int nFd = pair.m_near.getFd();
    char acBuffer[1];
    int nDone = 0;
    {
        FaultScope fault(plan("send", nFd, "1", EPIPE).c_str());
        EXPECT_EQ(-1, pair.m_near.writeE("x", 1)); // the sink reads and writes here
    }
    {
        FaultScope fault(plan("send", nFd, "1", EPIPE).c_str());
        EXPECT_EQ(-1, pair.m_near.write("x", 1, nDone));
    }
    {
        FaultScope fault(plan("recv", nFd, "1", ENOMEM).c_str());
        EXPECT_EQ(-1, pair.m_near.readE(acBuffer, 1));
    }
    EventBus<LogEvent>::unsubscribe(&sink, &Sink::onLog);

    EXPECT_EQ(3, sink.nCalls);
}
