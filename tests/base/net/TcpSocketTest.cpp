// TcpSocket: creation, listening, accepting, buffer sizes and the option dump.
#include "TcpSocket.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "ScratchFolder.h"

namespace {

using Lines = std::vector<std::string>;

/** A listening socket of its own, closed at the end. */
class Listener
{
public:
    Listener()
    {
        EXPECT_EQ(0, m_socket.create());
        EXPECT_EQ(0, m_socket.bind("127.0.0.1", 0));
        EXPECT_EQ(0, m_socket.listen(5));
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener()
    {
        (void)m_socket.close();
    }

    TcpSocket m_socket;
};

bool isCloseOnExec(int nFd)
{
    return 0 != (fcntl(nFd, F_GETFD) & FD_CLOEXEC);
}

struct Limits
{
    explicit Limits(const char* pFile)
    {
        std::ifstream(pFile) >> nMinimum >> nDefault >> nMaximum;
    }
    int32_t nMinimum = -1;
    int32_t nDefault = -1;
    int32_t nMaximum = -1;
};

int32_t receiveBuffer(TcpSocket& socket)
{
    int32_t nSize = -1;
    EXPECT_EQ(0, socket.getOptRcvBuf(nSize));
    return nSize;
}

int32_t sendBuffer(TcpSocket& socket)
{
    int32_t nSize = -1;
    EXPECT_EQ(0, socket.getOptSndBuf(nSize));
    return nSize;
}

/** What the kernel makes of a receive size that it is asked for directly. */
int32_t receiveBufferFor(int32_t nSize)
{
    NetPair pair;
    EXPECT_EQ(0, pair.m_near.Socket::setOptRcvBuf(nSize));
    return receiveBuffer(pair.m_near);
}

int32_t sendBufferFor(int32_t nSize)
{
    NetPair pair;
    EXPECT_EQ(0, pair.m_near.Socket::setOptSndBuf(nSize));
    return sendBuffer(pair.m_near);
}

} // namespace

TEST(TcpSocket, CreateOpensAStreamSocketOnce)
{
    TcpSocket socket;
    int nType = 0;
    socklen_t uLength = sizeof(nType);

    ASSERT_EQ(0, socket.create());
    ASSERT_EQ(0, getsockopt(socket.getFd(), SOL_SOCKET, SO_TYPE, &nType, &uLength));
    EXPECT_EQ(SOCK_STREAM, nType);
    EXPECT_TRUE(isCloseOnExec(socket.getFd()));

    const int nFd = socket.getFd();
    EXPECT_EQ(-1, socket.create());
    EXPECT_EQ(nFd, socket.getFd());
    EXPECT_TRUE(isOpen(nFd));
    EXPECT_EQ(0, socket.close());
}

TEST(TcpSocket, FailedCreateIsLoggedAndTold)
{
    TcpSocket socket;
    LogCapture log;
    FaultScope fault("socket:1:EMFILE");

    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, socket.create());
    EXPECT_EQ(std::string("socket error.: ") + strerror(EMFILE) + "\n",
              testing::internal::GetCapturedStderr());

    EXPECT_EQ(Lines({"[debug] [TcpSocket ] [create] socket(-1)"}), takeLines(log));
    EXPECT_FALSE(socket.isValid());
}

TEST(TcpSocket, FailedListenIsToldUnlogged)
{
    TcpSocket socket;
    LogCapture log;
    EXPECT_EQ(-1, socket.listen(5)); // no descriptor: not even told
    ASSERT_EQ(0, socket.create());
    FaultScope fault("listen:1:EADDRINUSE");

    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, socket.listen(5));
    EXPECT_EQ(std::string("listen error.: ") + strerror(EADDRINUSE) + "\n",
              testing::internal::GetCapturedStderr());

    EXPECT_EQ(Lines(), takeLines(log));
    EXPECT_EQ(0, socket.close());
}

TEST(TcpSocket, AcceptTakesAPendingConnection)
{
    Listener listener;
    TcpSocket client = connectTo(portOf(listener.m_socket.getFd()));
    TcpSocket peer;

    ASSERT_EQ(0, listener.m_socket.accept(peer));

    ASSERT_TRUE(peer.isValid());
    EXPECT_TRUE(isCloseOnExec(peer.getFd()));
    ASSERT_EQ(2, send(client.getFd(), "hi", 2, 0));
    EXPECT_EQ("hi", readBytes(peer, 2));
    (void)peer.close();
    (void)client.close();
}

TEST(TcpSocket, AcceptWithoutAConnectionFails)
{
    Listener listener;
    TcpSocket peer;
    ASSERT_EQ(0, listener.m_socket.setOptBlock(false));
    LogCapture log;

    EXPECT_EQ(-1, listener.m_socket.accept(peer));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_FALSE(peer.isValid());

    TcpSocket none;
    EXPECT_EQ(-1, none.accept(peer));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocket, InterruptedAcceptSucceedsWithoutADescriptor)
{
    Listener listener;
    struct sigaction action
    {
    };
    struct sigaction old
    {
    };
    action.sa_handler = [](int) {}; // without SA_RESTART
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &old));
    TcpSocket peer(12345);
    std::atomic<bool> bDone{false};
    int nRet = -1;
    std::thread acceptor([&] {
        nRet = listener.m_socket.accept(peer); // blocks
        bDone = true;
    });

    // Sent again until it hits the blocking call.
    EXPECT_TRUE(eventually([&] {
        pthread_kill(acceptor.native_handle(), SIGUSR1);
        return bDone.load();
    }));
    acceptor.join();

    EXPECT_EQ(0, nRet);
    EXPECT_EQ(-1, peer.getFd());
    ASSERT_EQ(0, sigaction(SIGUSR1, &old, nullptr));
}

TEST(TcpSocket, CheckStateTellsReadiness)
{
    NetPair pair;
    EXPECT_EQ(2, pair.m_near.checkState());

    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    ASSERT_TRUE(pair.m_near.waitReadable(Time(30, 0)));
    EXPECT_EQ(3, pair.m_near.checkState());

    ASSERT_EQ(1, send(pair.m_far.getFd(), "!", 1, MSG_OOB));
    EXPECT_TRUE(eventually([&] { return 7 == pair.m_near.checkState(); }));

    (void)fillUp(pair.m_far);
    EXPECT_EQ(0, pair.m_far.checkState());
}

TEST(TcpSocket, CheckStateOfAClosedSocketIsAnException)
{
    NetPair pair;
    const TcpSocket view(pair.m_near.getFd());
    ASSERT_EQ(0, pair.m_near.close());

    EXPECT_EQ(4, pair.m_near.checkState());
    EXPECT_EQ(4, view.checkState()); // the number is not open any more
    EXPECT_EQ(4, TcpSocket().checkState());
}

// TCP reports data beside every hang-up and error: these two come without it.
TEST(TcpSocket, CheckStateCountsHangUpAndErrorAsReadiness)
{
    TcpSocket unconnected;
    ASSERT_EQ(0, unconnected.create());
    EXPECT_EQ(3, unconnected.checkState()) << "hung up, and writable";
    (void)unconnected.close();

    int anPipe[2];
    ASSERT_EQ(0, pipe2(anPipe, O_CLOEXEC | O_NONBLOCK));
    char acBlock[4096] = {0};
    while (write(anPipe[1], acBlock, sizeof(acBlock)) > 0) {
    }
    ASSERT_EQ(0, close(anPipe[0]));
    TcpSocket broken(anPipe[1]); // full and without a reader: an error alone
    EXPECT_EQ(3, broken.checkState());
    (void)broken.close();
}

TEST(TcpSocket, ShutdownOfOneDirectionLeavesTheOther)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    ASSERT_EQ(0, pair.m_far.setOptBlock(false));
    char cByte = 0;
    int nDone = 0;

    EXPECT_EQ(0, pair.m_near.shutdown(SHUT_RD));
    EXPECT_EQ(0, pair.m_near.write("x", 1, nDone));
    EXPECT_EQ(1, nDone);

    EXPECT_EQ(0, pair.m_far.shutdown(SHUT_WR));
    EXPECT_EQ("x", readBytes(pair.m_far, 1));
    EXPECT_EQ(0, pair.m_far.read(&cByte, 1, nDone)) << "nothing there, but open";
}

TEST(TcpSocket, DeliberateInterruptedCheckStateIsAnException)
{
    NetPair pair;
    FaultScope fault("poll:1:EINTR");

    EXPECT_EQ(4, pair.m_near.checkState());
    EXPECT_EQ(1U, faultHits());

    EXPECT_EQ(2, pair.m_near.checkState());
}

TEST(TcpSocket, ReceiveBufferBelowTheMinimumIsCorrected)
{
    const Limits limits("/proc/sys/net/ipv4/tcp_rmem");
    NetPair pair;
    LogCapture log;
    char acLine[200];
    snprintf(acLine, sizeof(acLine),
             "[error] [TcpSocket ] [setOptRcvBuf] tcp socket set recv buffer size error, min:%u "
             "max:%u  invalid:%d, correct to %u\n",
             static_cast<unsigned>(limits.nMinimum), static_cast<unsigned>(limits.nMaximum),
             limits.nMinimum - 1, static_cast<unsigned>(limits.nMinimum));

    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(limits.nMinimum - 1));

    EXPECT_EQ(Lines({acLine}), takeLines(log));
    EXPECT_EQ(receiveBufferFor(limits.nMinimum), receiveBuffer(pair.m_near));
}

TEST(TcpSocket, SendBufferBeyondTheMaximumIsCorrected)
{
    const Limits limits("/proc/sys/net/ipv4/tcp_wmem");
    NetPair pair;
    LogCapture log;
    char acLine[200];
    snprintf(acLine, sizeof(acLine),
             "[error] [TcpSocket ] [setOptSndBuf] tcp socket set send buffer size error, min:%u "
             "max:%u  invalid:%d, correct to %u\n",
             static_cast<unsigned>(limits.nMinimum), static_cast<unsigned>(limits.nMaximum),
             limits.nMaximum + 1, static_cast<unsigned>(limits.nMaximum));

    EXPECT_EQ(0, pair.m_near.setOptSndBuf(limits.nMaximum + 1));

    EXPECT_EQ(Lines({acLine}), takeLines(log));
    EXPECT_EQ(sendBufferFor(limits.nMaximum), sendBuffer(pair.m_near));
}

TEST(TcpSocket, NegativeBufferSizeBecomesTheMinimum)
{
    const Limits limits("/proc/sys/net/ipv4/tcp_wmem");
    NetPair pair;
    LogCapture log;

    EXPECT_EQ(0, pair.m_near.setOptSndBuf(-1));

    EXPECT_EQ(1U, takeLines(log, "  invalid:-1, correct to ").size());
    EXPECT_EQ(sendBufferFor(limits.nMinimum), sendBuffer(pair.m_near));
}

TEST(TcpSocket, BufferSizesAtTheLimitsAreAppliedInSilence)
{
    const Limits receive("/proc/sys/net/ipv4/tcp_rmem");
    const Limits transmit("/proc/sys/net/ipv4/tcp_wmem");
    NetPair pair;
    LogCapture log;

    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(receive.nMinimum));
    EXPECT_EQ(receiveBufferFor(receive.nMinimum), receiveBuffer(pair.m_near));
    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(receive.nMaximum));
    EXPECT_EQ(receiveBufferFor(receive.nMaximum), receiveBuffer(pair.m_near));
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(transmit.nMinimum));
    EXPECT_EQ(sendBufferFor(transmit.nMinimum), sendBuffer(pair.m_near));
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(transmit.nMaximum));
    EXPECT_EQ(sendBufferFor(transmit.nMaximum), sendBuffer(pair.m_near));

    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocket, WithoutReadableLimitsBothSetTheReceiveBuffer)
{
    NetPair pair;
    const int32_t nSendBefore = sendBuffer(pair.m_near);
    LogCapture log;

    FaultScope fault("popen:1-2:EMFILE");
    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(3000)); // below the minimum, taken as it is
    EXPECT_EQ(receiveBufferFor(3000), receiveBuffer(pair.m_near));
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(5000)); // Deliberate: the receive buffer
    EXPECT_EQ(2U, faultHits());

    EXPECT_EQ(receiveBufferFor(5000), receiveBuffer(pair.m_near));
    EXPECT_EQ(nSendBefore, sendBuffer(pair.m_near));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocket, DeliberateLimitsWithoutNumbersCountAsUnreadable)
{
    const ScratchFolder folder;
    folder.write("cat", "#!/bin/sh\nprintf '4096 many'\n"); // the limits' command
    std::filesystem::permissions(folder.path() / "cat", std::filesystem::perms::owner_all);
    NetPair pair;
    const int32_t nSendBefore = sendBuffer(pair.m_near);
    LogCapture log;

    const std::string strPath = getenv("PATH");
    setenv("PATH", (folder.path().string() + ":" + strPath).c_str(), 1);
    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(3000)); // below the minimum, taken as it is
    const int32_t nReceive = receiveBuffer(pair.m_near);
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(5000));
    setenv("PATH", strPath.c_str(), 1);

    EXPECT_EQ(receiveBufferFor(3000), nReceive);
    EXPECT_EQ(receiveBufferFor(5000), receiveBuffer(pair.m_near));
    EXPECT_EQ(nSendBefore, sendBuffer(pair.m_near));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocket, WithoutLimitsEachSetsItsBuffer)
{
    NetPair pair;
    LogCapture log;

    FaultScope fault("access=/proc/sys/net/ipv4/tcp_:1-2:ENOENT");
    ASSERT_EQ(0, fault.result());
    EXPECT_EQ(0, pair.m_near.setOptRcvBuf(3000));
    EXPECT_EQ(0, pair.m_near.setOptSndBuf(5000));
    EXPECT_EQ(2U, faultHits());

    EXPECT_EQ(receiveBufferFor(3000), receiveBuffer(pair.m_near));
    EXPECT_EQ(sendBufferFor(5000), sendBuffer(pair.m_near));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocket, OptionsAreDumpedInOrder)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptReuseAddr(true));
    ASSERT_EQ(0, pair.m_near.setOptLinger(true, 3));
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    ASSERT_EQ(4, send(pair.m_far.getFd(), "abcd", 4, 0));
    ASSERT_TRUE(pair.m_near.waitReadable(Time(30, 0)));
    LogCapture log;

    pair.m_near.printCurOpts();

    const std::string strPrefix = "[debug] [TcpSocket ] [printCurOpts] ";
    const auto number = [](int nValue) { return std::to_string(nValue); };
    EXPECT_EQ(
        Lines({strPrefix + "*****************  socket:" + number(pair.m_near.getFd()) +
                   " option display  ***************** \n",
               strPrefix +
                   "* getsockname IP:127.0.0.1 port:" + number(portOf(pair.m_near.getFd())) + " \n",
               strPrefix + "* getpeername IP:127.0.0.1 port:" + number(portOf(pair.m_far.getFd())) +
                   " \n",
               strPrefix + "* bReuse:1 \n", strPrefix + "* bLingerOnOff:1 nLinger:3(s) \n",
               strPrefix + "* nSndTimeO:0(ms)\n", strPrefix + "* nRcvTimeO:0(ms)\n",
               strPrefix + "* nSndBuf:" + number(sendBuffer(pair.m_near)) + " remain:0\n",
               strPrefix + "* nRcvBuf:" + number(receiveBuffer(pair.m_near)) + " remain:4\n",
               strPrefix + "* bBlock:0 \n",
               strPrefix + "************************************************************** \n"}),
        takeLines(log));

    TcpSocket().printCurOpts();
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocket, OptionThatCantBeReadIsAnAssertion)
{
    // Which of the reads fails, and what the assertion then says.
    const char* const apExpression[] = {
        "0 == getOptReuseAddr\\(bReuse\\)",   "0 == getOptLinger\\(bLingerOnOff, nLinger\\)",
        "0 == getOptSndTimeO\\(nSndTimeO\\)", "0 == getOptRcvTimeO\\(nRcvTimeO\\)",
        "0 == getOptSndBuf\\(nSndBuf\\)",     "0 == getOptRcvBuf\\(nRcvBuf\\)",
    };
    NetPair pair;
    int nRead = 0;
    for (const char* pExpression : apExpression) {
        ++nRead;
        const std::string strPlan = "getsockopt:" + std::to_string(nRead) + ":ENOMEM";
        EXPECT_DEATH(
            {
                (void)faultPlan(strPlan.c_str());
                pair.m_near.printCurOpts();
            },
            std::string("void TcpSocket::printCurOpts\\(\\): Assertion `") + pExpression +
                "' failed");
    }
    EXPECT_DEATH(
        {
            (void)faultPlan("fcntl:1:EBADF");
            pair.m_near.printCurOpts();
        },
        "void TcpSocket::printCurOpts\\(\\): Assertion `0 == getOptBlock\\(bBlock\\)' failed");
}
