// TCP server: the most connections, memory and descriptors that run out, accepts that fail.
#include <cerrno>
#include <new>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "ServerFixture.h"

namespace {

using Lines = std::vector<std::string>;
using Steps = std::vector<std::string>;

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

TEST(TcpServerFull, BeyondItsMostConnectionsTheNewestIsRefused)
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

TEST(TcpServerFull, WhoDoesNotSayHowMakesNoRoom)
{
    ServerOf<TcpClient> server(1);
    ASSERT_EQ(0, server.listen());
    TcpSocket first = connectTo(server.getPort());
    ASSERT_TRUE(eventually([&] { return 0 == server.pollOnce() && nullptr != server.m_pLast; }));
    const TcpClient* pFirst = server.m_pLast;
    TcpSocket second = connectTo(server.getPort());

    ASSERT_TRUE(eventually([&] {
        (void)server.pollOnce();
        return second.waitReadable(Time()) || pFirst != server.m_pLast;
    }));

    EXPECT_EQ(pFirst, server.m_pLast);
    EXPECT_TRUE(sawEnd(second));
    EXPECT_TRUE(isSilent(first));
    (void)first.close();
    (void)second.close();
}

TEST(TcpServerFull, BeyondItsMostConnectionsOneMayMakeRoom)
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

TEST(TcpServerFull, HighestRankMakesRoomWhateverItsAge)
{
    StepServer server(3);
    server.listen();
    TcpSocket first = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    TcpSocket second = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start", 2));
    TcpClient* pSecond = server.m_pLast;
    TcpSocket third = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start", 3));
    server.m_rank = [pSecond](TcpClient& client) { return (&client == pSecond) ? 2 : 1; };
    TcpSocket fourth = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start", 4));

    EXPECT_TRUE(isSilent(first));
    EXPECT_TRUE(sawEnd(second));
    EXPECT_TRUE(isSilent(third));
    for (TcpSocket* pPeer : {&first, &second, &third, &fourth}) {
        (void)pPeer->close();
    }
}

TEST(TcpServerFull, LowestRankMakesRoomWhenItIsTheOnlyOne)
{
    StepServer server(1);
    server.listen();
    server.m_rank = [](TcpClient&) { return 1; };
    TcpSocket first = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    TcpSocket second = connectTo(server.getPort());

    ASSERT_TRUE(eventually([&] { return 0 == server.pollOnce() && first.waitReadable(Time()); }));

    EXPECT_TRUE(sawEnd(first));
    EXPECT_TRUE(isSilent(second));
    for (TcpSocket* pPeer : {&first, &second}) {
        (void)pPeer->close();
    }
}

TEST(TcpServerFull, WhoHasNoRankMakesNoRoom)
{
    StepServer server(1);
    server.listen();
    server.m_rank = [](TcpClient&) { return 0; };
    TcpSocket first = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    TcpSocket second = connectTo(server.getPort());

    ASSERT_TRUE(eventually([&] { return 0 == server.pollOnce() && second.waitReadable(Time()); }));

    EXPECT_TRUE(sawEnd(second));
    EXPECT_TRUE(isSilent(first));
    for (TcpSocket* pPeer : {&first, &second}) {
        (void)pPeer->close();
    }
}

TEST(TcpServerFull, WithoutMemoryForAClientTheConnectionIsClosed)
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

TEST(TcpServerFull, WithoutMemoryToKeepAnUntunedClientItIsDestroyed)
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

TEST(TcpServerFull, FailedAcceptIsTriedAgainWithoutANewConnection)
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

TEST(TcpServerFull, AcceptThatWorkedTheSecondTimeIsNotTriedOnceMore)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    {
        FaultScope fault("accept4:1:EMFILE");
        ASSERT_TRUE(server.poll("start"));
        ASSERT_EQ(1U, faultHits());
    }

    FaultScope fault("accept4:1-:EAGAIN");
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(1, send(peer.getFd(), "x", 1, 0)); // or the pass would last its second
        EXPECT_EQ(0, server.pollOnce());
    }

    // The kernel may report a connection that was accepted before its report.
    EXPECT_GE(1U, faultHits());
    (void)peer.close();
}

TEST(TcpServerFull, AcceptThatKeepsFailingIsTriedInEachPass)
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

TEST(TcpServerFull, NothingIsTriedAgainAfterTheLastConnection)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));

    FaultScope fault("accept4:1-:EAGAIN");
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(1, send(peer.getFd(), "x", 1, 0)); // or the pass would last its second
        EXPECT_EQ(0, server.pollOnce());
    }

    // The kernel may report a connection that was accepted before its report.
    EXPECT_GE(1U, faultHits());
    (void)peer.close();
}

TEST(TcpServerFull, RunningOutOfDescriptorsIsOverWhenClientsLeave)
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

TEST(TcpServerFull, ManyClientsPassThroughFewDescriptors)
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
