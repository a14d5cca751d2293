// Socket: what is logged and returned when an operation fails.
#include <cerrno>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "EventBus.h"
#include "Fault.h"
#include "LogCapture.h"
#include "LogEvent.h"
#include "NetPair.h"
#include "Socket.h"
#include "SocketFailure.h"

namespace {

using Lines = std::vector<std::string>;

struct ErrorLine
{
    int nError;
    const char* pLevel;
    const char* pText;
};

const ErrorLine REPORTED[] = {
    {EPERM, "[error]", "Unknow socket error.\n"},
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

TEST(SocketError, EachErrorOfAReadHasItsText)
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

TEST(SocketError, EachErrorOfAWholeWriteHasItsText)
{
    NetPair pair;
    LogCapture log;
    for (const ErrorLine& entry : REPORTED) {
        FaultScope fault(plan("send", pair.m_near.getFd(), "1", entry.nError).c_str());

        EXPECT_EQ(-1, pair.m_near.writeE("abc", 3));

        EXPECT_EQ(lineOf(entry, "writeE"), takeLines(log)) << entry.nError;
    }
}

TEST(SocketError, ConnectReportsInterruptionsToo)
{
    NetPair pair;
    LogCapture log;
    for (const ErrorLine& entry : INTERRUPTIONS) {
        FaultScope fault(plan("connect", pair.m_near.getFd(), "1", entry.nError).c_str());

        EXPECT_EQ(-1, pair.m_near.connect("127.0.0.1", 1));

        EXPECT_EQ(lineOf(entry, "connect"), takeLines(log)) << entry.nError;
    }
}

TEST(SocketError, EachOperationReportsUnderItsName)
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

TEST(SocketError, EveryOperationRefusesAMissingDescriptor)
{
    Socket socket;
    LogCapture log;
    char acBuffer[4] = "abc";
    iovec piece{acBuffer, 4};
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
    nDone = 7;
    EXPECT_EQ(-1, socket.readTimeOut(acBuffer, 4, nDone, nullptr, timeout));
    EXPECT_EQ(0, nDone);
    nDone = 7;
    EXPECT_EQ(-1, socket.write(acBuffer, 4, nDone));
    EXPECT_EQ(0, nDone);
    nDone = 7;
    EXPECT_EQ(-1, socket.write(&piece, 1, nDone));
    EXPECT_EQ(0, nDone);
    EXPECT_EQ(-1, socket.writeE(acBuffer, 4));
    nDone = 7;
    EXPECT_EQ(-1, socket.writeTimeOut(acBuffer, 4, nDone, nullptr, timeout));
    EXPECT_EQ(0, nDone);
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
    nValue = 7;
    EXPECT_EQ(-1, socket.getSndQueue(nValue));
    EXPECT_EQ(0, nValue);
    nValue = 7;
    EXPECT_EQ(-1, socket.getRcvQueue(nValue));
    EXPECT_EQ(0, nValue);
    EXPECT_TRUE(socket.waitReadable(timeout));
    EXPECT_TRUE(socket.waitWritable(timeout));
    EXPECT_EQ(0, socket.shutdown(SHUT_RDWR));
    EXPECT_EQ(0, socket.close());
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(SocketError, BindToATakenPortIsAnUnknownError)
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

TEST(SocketError, LogSinkMayUseTheSocketWhoseFailureItIsTold)
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
