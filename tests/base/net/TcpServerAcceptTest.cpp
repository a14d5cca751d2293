// TcpServer: accepting, tuning and announcing a connection, limits, and what may fail on the way.
#include <cerrno>
#include <new>
#include <string>
#include <vector>

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "ServerFixture.h"
#include "TcpServer.h"

namespace {

using Lines = std::vector<std::string>;
using Steps = std::vector<std::string>;

std::string acceptLine(const char* pText)
{
    return std::string("[error] [TcpServer ] [onPollAccept] ") + pText;
}

/** Few descriptors for the server, while its peers, in the same process, have theirs above them. */
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int nLimit) : m_nLimit(nLimit)
    {
        EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &m_old));
        for (int nFd = 0; nFd < nLimit;) {
            nFd = open("/dev/null", O_RDONLY | O_CLOEXEC);
            m_vecPlaceholder.push_back(nFd);
        }
    }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;
    ~DescriptorLimit()
    {
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &m_old));
        for (const int nFd : m_vecPlaceholder) {
            ::close(nFd);
        }
    }

    std::vector<TcpSocket> makePeers(int nCount) const
    {
        std::vector<TcpSocket> vecPeer;
        for (int i = 0; i < nCount; ++i) {
            vecPeer.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
            EXPECT_GE(vecPeer.back().getFd(), m_nLimit);
        }
        return vecPeer;
    }

    /** From now on so many descriptors are left below the limit. */
    void apply(int nFree)
    {
        for (int i = 0; i < nFree; ++i) {
            ::close(m_vecPlaceholder.front());
            m_vecPlaceholder.erase(m_vecPlaceholder.begin());
        }
        rlimit low = m_old;
        low.rlim_cur = static_cast<rlim_t>(m_nLimit);
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    }

private:
    const int m_nLimit;
    rlimit m_old{};
    std::vector<int> m_vecPlaceholder;
};

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

    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(16, server.m_steps.count("start"));
    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(20, server.m_steps.count("start"));
    for (TcpSocket& peer : vecPeer) {
        (void)peer.close();
    }
}

TEST(TcpServerAccept, BeyondItsMostConnectionsTheNewestIsRefused)
{
    StepServer server(2);
    server.listen();
    TcpSocket first = connectTo(server.getPort());
    TcpSocket second = connectTo(server.getPort());
    TcpSocket third = connectTo(server.getPort());

    ASSERT_TRUE(eventually([&] { return 0 == server.pollOnce() && third.waitReadable(Time()); }));

    EXPECT_TRUE(sawEnd(third));
    EXPECT_TRUE(isSilent(first));
    EXPECT_TRUE(isSilent(second));
    EXPECT_EQ(2, server.m_steps.count("create"));

    (void)first.close();
    ASSERT_TRUE(server.poll("delete"));
    TcpSocket fourth = connectTo(server.getPort());
    EXPECT_TRUE(server.poll("start", 3)) << "there is room again";
    for (TcpSocket* pPeer : {&second, &third, &fourth}) {
        (void)pPeer->close();
    }
}

TEST(TcpServerAccept, BeyondItsMostConnectionsOneMayMakeRoom)
{
    StepServer server(2);
    server.listen();
    TcpSocket first = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    TcpClient* pFirst = server.m_pLast;
    TcpSocket second = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start", 2));
    server.m_rank = [pFirst](TcpClient& client) { return (&client == pFirst) ? 2 : 1; };
    TcpSocket third = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start", 3));

    EXPECT_TRUE(sawEnd(first));
    EXPECT_TRUE(isSilent(second));
    for (TcpSocket* pPeer : {&first, &second, &third}) {
        (void)pPeer->close();
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

TEST(TcpServerAccept, KernelKeepsLittleUnsentForAcceptedSockets)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));

    EXPECT_EQ(8192, optionOf(server.m_pLast->getSocket().getFd(), IPPROTO_TCP, TCP_NOTSENT_LOWAT));
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

TEST(TcpServerAccept, SocketThatCantBeTunedIsClosedAndItsClientKept)
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
            // Deliberate: not destroyed, neither initialised.
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

TEST(TcpServerAccept, WithoutAClientTheConnectionStaysOpenAndUnserved)
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

TEST(TcpServerAccept, WithoutMemoryForAClientTheConnectionIsClosed)
{
    class ClientWithoutMemory : public TcpClient
    {
    public:
        ClientWithoutMemory()
        {
            throw std::bad_alloc();
        }
    };
    ServerOf<ClientWithoutMemory> server;
    ASSERT_EQ(0, server.listen());
    TcpSocket peer = connectTo(server.getPort());
    LogCapture log;

    EXPECT_TRUE(eventually([&] { return 0 == server.pollOnce() && peer.waitReadable(Time()); }));

    EXPECT_TRUE(sawEnd(peer));
    EXPECT_EQ(Lines({acceptLine("create(new) tcp client error !!\n")}), takeLines(log));
    (void)peer.close();
}

TEST(TcpServerAccept, WithoutMemoryToKeepAnUntunedClientItIsDestroyed)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    server.m_onCreate = [] {
        (void)faultPlan(
            ("malloc=" + std::to_string(sizeof(void*)) + ":1:ENOMEM;setsockopt:1:ENOMEM").c_str());
    };

    ASSERT_TRUE(server.poll("delete"));
    (void)faultPlan("");

    EXPECT_EQ(Steps({"create 1", "delete 1"}), server.m_steps.take());
    EXPECT_TRUE(sawEnd(peer));
    (void)peer.close();
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

TEST(TcpServerAccept, FailedAcceptIsTriedAgainWithoutANewConnection)
{
    for (const int nError : {ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO}) {
        StepServer server;
        server.listen();
        TcpSocket peer = connectTo(server.getPort());
        FaultScope fault(("accept4:1:" + std::to_string(nError)).c_str());

        EXPECT_TRUE(server.poll("start"));

        EXPECT_EQ(1U, faultHits());
        (void)peer.close();
    }
}

TEST(TcpServerAccept, AcceptThatKeepsFailingIsTriedInEachPass)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    FaultScope fault("accept4:1-3:EMFILE");

    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(2U, faultHits()); // the event's, and once more at the end of the pass
    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(3U, faultHits()); // not in a loop
    EXPECT_EQ(0, server.m_steps.count("start"));

    EXPECT_TRUE(server.poll("start"));
    (void)peer.close();
}

TEST(TcpServerAccept, NothingIsTriedAgainAfterTheLastConnection)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));

    FaultScope fault("accept4:1-:EMFILE");
    ASSERT_EQ(1, send(peer.getFd(), "x", 1, 0));
    EXPECT_TRUE(eventually([&] {
        (void)server.pollOnce();
        return peer.waitReadable(Time());
    }));

    EXPECT_EQ(0U, faultHits());
    (void)peer.close();
}

TEST(TcpServerAccept, RunningOutOfDescriptorsIsOverWhenClientsLeave)
{
    DescriptorLimit limit(64);
    std::vector<TcpSocket> vecPeer = limit.makePeers(15);
    StepServer server;
    limit.apply(6);
    server.listen();
    for (TcpSocket& peer : vecPeer) {
        ASSERT_EQ(0, peer.connect("127.0.0.1", server.getPort()));
    }
    ASSERT_TRUE(server.poll("start", 3));
    EXPECT_EQ(0, server.pollOnce());
    EXPECT_LT(server.m_steps.count("start"), 15);

    // No new connection comes: only the departures make room.
    for (TcpSocket& peer : vecPeer) {
        (void)peer.close();
    }
    EXPECT_TRUE(server.poll("delete", 15));
    EXPECT_EQ(15, server.m_steps.count("start"));
}

TEST(TcpServerAccept, ManyClientsPassThroughFewDescriptors)
{
    const size_t uAtOnce = 24; // more than the server can have, the rest within its backlog
    const size_t uLeaving = 12;
    DescriptorLimit limit(64);
    std::vector<TcpSocket> vecPeer = limit.makePeers(60);
    StepServer server;
    limit.apply(20);
    server.listen();
    ASSERT_EQ(0, server.start());
    size_t uConnected = 0;
    std::vector<TcpSocket*> vecAsking;
    std::vector<TcpSocket*> vecAnswered;

    EXPECT_TRUE(eventually([&] {
        while (uConnected < vecPeer.size() && vecAsking.size() + vecAnswered.size() < uAtOnce) {
            TcpSocket& peer = vecPeer[uConnected++];
            EXPECT_EQ(0, peer.connect("127.0.0.1", server.getPort()));
            EXPECT_EQ(1, send(peer.getFd(), "?", 1, MSG_NOSIGNAL));
            vecAsking.push_back(&peer);
        }
        for (size_t i = 0; i < vecAsking.size();) {
            if ("?" == readPending(*vecAsking[i])) {
                vecAnswered.push_back(vecAsking[i]);
                vecAsking.erase(vecAsking.begin() + static_cast<ptrdiff_t>(i));
            } else {
                ++i;
            }
        }
        // They leave in batches, so that the server is out of descriptors again and again.
        if (vecAnswered.size() >= uLeaving || vecAsking.empty()) {
            for (TcpSocket* pPeer : vecAnswered) {
                (void)pPeer->close();
            }
            vecAnswered.clear();
        }
        return uConnected == vecPeer.size() && vecAsking.empty() && vecAnswered.empty();
    }));

    EXPECT_TRUE(eventually([&] { return 60 == server.m_steps.count("delete"); }));
}
