// TCP server: accepting, tuning and announcing a connection, and what may fail on the way.
#include <cerrno>
#include <string>
#include <vector>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "ServerFixture.h"
#include "TcpServer.h"

namespace {

using Lines = std::vector<std::string>;
using Steps = std::vector<std::string>;

} // namespace

TEST(TcpServerAccept, ConnectionIsTunedServedAndAnnounced)
{
    StepServer server;
    server.listen();
    LogCapture log;
    TcpSocket peer = connectTo(server.getPort());

    ASSERT_TRUE(server.poll("start"));

    EXPECT_EQ(Steps({"create 1", "init 1", "start 1"}), server.m_steps.take());
    const int nFd = server.m_pLast->getSocket().getFd();
    EXPECT_NE(0, fcntl(nFd, F_GETFL) & O_NONBLOCK);
    EXPECT_NE(0, fcntl(nFd, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(1, optionOf(nFd, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(5, optionOf(nFd, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(1, optionOf(nFd, IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(2, optionOf(nFd, IPPROTO_TCP, TCP_KEEPCNT));
    EXPECT_EQ(2 * 8192, optionOf(nFd, SOL_SOCKET, SO_SNDBUF)); // socket(7): doubled
    EXPECT_EQ(2 * 16384, optionOf(nFd, SOL_SOCKET, SO_RCVBUF));
    char acLine[160];
    snprintf(acLine, sizeof(acLine),
             "[info ] [TcpServer ] [onPollAccept] tcp client connected, local(127.0.0.1:%u) "
             "remote(127.0.0.1:%u)\n",
             server.getPort(), portOf(peer.getFd()));
    EXPECT_EQ(Lines({acLine}), takeLines(log, "[TcpServer ]"));

    ASSERT_EQ(5, send(peer.getFd(), "hello", 5, 0));
    EXPECT_TRUE(eventually([&] {
        (void)server.pollOnce();
        return peer.waitReadable(Time());
    }));
    EXPECT_EQ("hello", readBytes(peer, 5));
    (void)peer.close();
}

TEST(TcpServerAccept, AllPendingConnectionsAreAcceptedAtOnce)
{
    StepServer server;
    server.listen();
    std::vector<TcpSocket> vecPeer;
    for (int i = 0; i < 15; ++i) {
        vecPeer.push_back(connectTo(server.getPort()));
    }

    // The last ones may still be on their way through the kernel.
    int nPasses = 0;
    for (; nPasses < 15 && server.m_steps.count("start") < 15; ++nPasses) {
        EXPECT_EQ(0, server.pollOnce());
    }

    EXPECT_EQ(15, server.m_steps.count("start"));
    EXPECT_GT(8, nPasses);
    for (TcpSocket& peer : vecPeer) {
        (void)peer.close();
    }
}

TEST(TcpServerAccept, PassAcceptsSixteenConnectionsAndTheNextOneTheRest)
{
    StepServer server;
    server.listen();
    std::vector<TcpSocket> vecPeer;
    for (int i = 0; i < 20; ++i) {
        vecPeer.push_back(connectTo(server.getPort()));
    }
    ASSERT_TRUE(eventually([&] { // all of them through the kernel
        tcp_info info{};
        socklen_t uLength = sizeof(info);
        getsockopt(server.getListenFd(), IPPROTO_TCP, TCP_INFO, &info, &uLength);
        return 20 == info.tcpi_unacked; // of a listener: what waits
    }));

    const CallJournal journal("epoll_wait");
    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(16, server.m_steps.count("start"));
    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(20, server.m_steps.count("start"));
    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(Lines({"epoll_wait 20 1000", "epoll_wait 20 0", "epoll_wait 20 1000"}),
              CallJournal::lines());
    for (TcpSocket& peer : vecPeer) {
        (void)peer.close();
    }
}

TEST(TcpServerAccept, AcceptedSocketsDoNotWaitForMoreToSend)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));

    EXPECT_EQ(1, optionOf(server.m_pLast->getSocket().getFd(), IPPROTO_TCP, TCP_NODELAY));
    (void)peer.close();
}

TEST(TcpServerAccept, KernelKeepsNothingUnsentForAcceptedSockets)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));

    EXPECT_EQ(1, optionOf(server.m_pLast->getSocket().getFd(), IPPROTO_TCP, TCP_NOTSENT_LOWAT));
    (void)peer.close();
}

TEST(TcpServerAccept, SocketThatWaitsForMoreToSendIsServedAllTheSame)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    LogCapture log;
    FaultScope fault("setsockopt:7-8:ENOMEM"); // the last ones, behind the buffers

    ASSERT_TRUE(server.poll("start"));

    EXPECT_EQ(2U, faultHits());
    EXPECT_EQ(0, optionOf(server.m_pLast->getSocket().getFd(), IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(Lines(), takeLines(log, "nRet"));
    (void)peer.close();
}

TEST(TcpServerAccept, DeliberateSocketThatCantBeTunedIsClosedAndItsClientKept)
{
    struct Case
    {
        const char* pPlan;
        const char* pText;
    };
    const Case aCase[] = {
        {"fcntl:1:EBADF", "tcp client socket set unblock error !!\n"},
        {"setsockopt:1:ENOMEM", "tcp client socket set alive error !!\n"},
        {"setsockopt:5:ENOMEM", "tcp client socket set recv buffer error !!\n"},
        {"setsockopt:6:ENOMEM", "tcp client socket set send buffer error !!\n"},
    };
    for (const Case& entry : aCase) {
        StepLog* pSteps = nullptr;
        {
            StepServer server;
            pSteps = &server.m_steps;
            server.listen();
            TcpSocket peer = connectTo(server.getPort());
            TcpSocket next = connectTo(server.getPort());
            LogCapture log;
            FaultScope fault(entry.pPlan);

            ASSERT_TRUE(server.poll("start")); // the loop goes on to the next

            EXPECT_EQ(1U, faultHits());
            EXPECT_EQ(Lines({acceptLine(entry.pText)}), takeLines(log, "[error] [TcpServer ]"));
            // Not destroyed, neither initialised.
            EXPECT_EQ(Steps({"create 1", "create 2", "init 2", "start 2"}), pSteps->take());
            EXPECT_TRUE(sawEnd(peer));
            (void)peer.close();
            (void)next.close();
        }
    }
}

TEST(TcpServerAccept, InterruptedAcceptIsLoggedAndTheLoopGoesOn)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    LogCapture log;
    FaultScope fault("accept4:1:EINTR");

    EXPECT_EQ(0, server.pollOnce());

    EXPECT_EQ(Lines({acceptLine("tcp client socket set unblock error !!\n")}),
              takeLines(log, "[error]"));
    EXPECT_EQ(Steps({"create 1", "create 2", "init 2", "start 2"}), server.m_steps.take());
    (void)peer.close();
}

TEST(TcpServerAccept, DeliberateWithoutAClientTheConnectionStaysOpenAndUnserved)
{
    StepServer server;
    server.listen();
    server.m_failing = {"create"};
    TcpSocket peer = connectTo(server.getPort());
    LogCapture log;

    ASSERT_TRUE(server.poll("create"));
    EXPECT_EQ(Lines({acceptLine("create(new) tcp client error !!\n")}), takeLines(log));
    ASSERT_EQ(1, send(peer.getFd(), "x", 1, 0));
    server.m_failing.clear();
    TcpSocket next = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));

    EXPECT_TRUE(isSilent(peer));
    EXPECT_EQ(Steps({"create 1", "create 2", "init 2", "start 2"}), server.m_steps.take());
    (void)peer.close();
    (void)next.close();
}

TEST(TcpServerAccept, EachFailedStepOfAClientEndsIt)
{
    struct Case
    {
        const char* pFailing;
        const char* pPlan;
        const char* pText;
        Steps steps;
    };
    const Case aCase[] = {
        {"init",
         "",
         "tcp client connected, but init failed !!\n",
         {"create 1", "init 1", "delete 1"}},
        {"start",
         "",
         "tcp client connected, but start failed !!\n",
         {"create 1", "init 1", "start 1", "uninit 1", "delete 1"}},
        {"",
         "epoll_ctl:1:ENOMEM",
         "tcp client connected, but add to epoll failed !!\n",
         {"create 1", "init 1", "start 1", "stop 1", "uninit 1", "delete 1"}},
    };
    for (const Case& entry : aCase) {
        StepServer server;
        server.listen();
        server.m_failing = {entry.pFailing};
        TcpSocket peer = connectTo(server.getPort());
        LogCapture log;
        FaultScope fault(entry.pPlan);

        ASSERT_TRUE(server.poll("delete"));

        EXPECT_EQ(entry.steps, server.m_steps.take());
        EXPECT_EQ(Lines({acceptLine(entry.pText)}), takeLines(log, "[TcpServer ]"));
        EXPECT_TRUE(sawEnd(peer));
        (void)peer.close();
    }
}
