// TcpSocket: creation, listening, accepting, readiness.
#include "TcpSocket.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "EventBus.h"
#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "LogEvent.h"
#include "NetPair.h"
#include "ScratchFolder.h"
#include "TcpInfoAnswer.h"

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

TEST(TcpSocket, DescriptorZeroIsADescriptor)
{
    const ZeroIsFree zero;
    TcpSocket socket;

    EXPECT_EQ(0, socket.create());

    EXPECT_EQ(0, socket.getFd());
    EXPECT_TRUE(isOpen(0));
    EXPECT_EQ(0, socket.close());
    EXPECT_FALSE(isOpen(0));
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

TEST(TcpSocket, LogSinkChangesNothingInWhatIsToldOfAFailedCreate)
{
    struct Sink
    {
        int onLog(Event*)
        {
            errno = m_nLeft; // as a sink's own calls may
            return 0;
        }
        const int m_nLeft = EPIPE;
    } sink;
    TcpSocket socket;
    const LogCapture quiet;
    EventBus<LogEvent>::subscribe(&sink, &Sink::onLog);
    FaultScope fault("socket:1:EMFILE");

    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, socket.create());
    EventBus<LogEvent>::unsubscribe(&sink, &Sink::onLog);

    EXPECT_EQ(std::string("socket error.: ") + strerror(EMFILE) + "\n",
              testing::internal::GetCapturedStderr());
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
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(TcpSocket, DeliberateInterruptedAcceptSucceedsWithoutADescriptor)
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
    const CallJournal journal("poll");
    EXPECT_EQ(0, pair.m_far.checkState());
    EXPECT_EQ(Lines{"poll 0"}, CallJournal::lines()) << "looked at once";
}

TEST(TcpSocket, CheckStateTellsUrgentDataFromData)
{
    NetPair pair;
    ASSERT_EQ(1, send(pair.m_far.getFd(), "!", 1, MSG_OOB));

    EXPECT_TRUE(eventually([&] { return 2 != pair.m_near.checkState(); }));

    EXPECT_EQ(6, pair.m_near.checkState()) << "writable, urgent, and nothing else to read";
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

TEST(TcpSocket, PeerIsSilentOnceWhatItWasSentStaysUnacknowledged)
{
    struct Case
    {
        uint32_t u32LastAckMs;
        uint32_t u32LastDataMs;
        uint32_t u32Unacknowledged;
        uint8_t u8Probes;
        bool bSilent;
    };
    const Case aCase[] = {
        {8000, 7999, 1, 0, true},  {7999, 7998, 1, 0, false}, // a millisecond is missing
        {8000, 7999, 0, 0, false},                            // nothing is on its way
        {8000, 8000, 1, 0, false}, // nothing was sent since the last answer
        {8000, 1000, 1, 0, true},  {8000, 999, 1, 0, false}, // it may still be answered
        {8000, 8001, 0, 1, false},                           // likewise the first probe
        {8000, 8001, 0, 2, true},  {7999, 8001, 0, 2, false},
    };
    NetPair pair;
    for (const Case& entry : aCase) {
        const TcpInfoAnswer answer([&entry](tcp_info& info, socklen_t&) {
            info.tcpi_last_ack_recv = entry.u32LastAckMs;
            info.tcpi_last_data_sent = entry.u32LastDataMs;
            info.tcpi_unacked = entry.u32Unacknowledged;
            info.tcpi_probes = entry.u8Probes;
        });

        EXPECT_EQ(entry.bSilent, pair.m_near.isPeerSilent(8000)) << (&entry - aCase);
    }
}

TEST(TcpSocket, PeerOfWhichTheKernelDoesNotSayIsNotSilent)
{
    NetPair pair;
    const size_t uNeeded = offsetof(tcp_info, tcpi_last_ack_recv) + 4;
    for (const size_t uTold : {size_t{4}, uNeeded - 1, uNeeded}) {
        const TcpInfoAnswer answer([uTold](tcp_info& info, socklen_t& uLength) {
            info.tcpi_last_ack_recv = 8000;
            info.tcpi_last_data_sent = 7000;
            info.tcpi_unacked = 1;
            uLength = static_cast<socklen_t>(uTold);
        });
        EXPECT_EQ(uNeeded == uTold, pair.m_near.isPeerSilent(8000)) << uTold;
    }
    EXPECT_FALSE(TcpSocket().isPeerSilent(0)) << "without a descriptor";
}
