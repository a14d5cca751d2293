// TcpServer: its end with connections open.
#include <atomic>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "AtExitOrder.h"
#include "ClientMemory.h"
#include "Eventually.h"
#include "Fault.h"
#include "Log.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "ServerFixture.h"
#include "TcpServer.h"

namespace {

using Steps = std::vector<std::string>;

const char* const CONNECTION_LINE = "[info ] [TcpServer ] [onPollError] tcp client error, delete "
                                    "from epoll and close !!\n";

/** The first to use any of them is the server. */
void exitInOrder()
{
    static ServerOf<TcpClient> s_server;
    exit(outlive({&Log::getInstance(), &ClientMemory::getInstance()}, &s_server) ? 0 : 1);
}

} // namespace

TEST(TcpServerEnd, KeptClientsAreFreedWithTheServer)
{
    StepLog steps;
    const std::set<std::string> none;
    struct Server : public TcpServer
    {
        Server(StepLog& stepLog, const std::set<std::string>& failing)
            : m_steps(stepLog), m_none(failing)
        {
        }
        ~Server() override
        {
            endService();
        }
        TcpClient* createClient() override
        {
            return new StepClient(m_steps, m_none, 7);
        }
        StepLog& m_steps;
        const std::set<std::string>& m_none;
        using TcpServer::m_socket;
    };
    {
        Server server(steps, none);
        ASSERT_EQ(0, server.init(0, "127.0.0.1", 4096, 4096));
        TcpSocket peer = connectTo(portOf(server.m_socket.getFd()));
        FaultScope fault("setsockopt:1:ENOMEM");
        ASSERT_TRUE(eventually([&] { return 0 == server.pollOnce() && sawEnd(peer); }));
        EXPECT_EQ(Steps(), steps.take());
        (void)peer.close();
    }
    EXPECT_EQ(Steps({"delete 7"}), steps.take());
}

TEST(TcpServerEnd, ItsEndEndsTheOpenConnections)
{
    std::vector<TcpSocket> vecPeer;
    LogCapture log;
    {
        StepServer server;
        server.listen();
        ASSERT_EQ(0, server.start());
        for (int i = 0; i < 5; ++i) {
            vecPeer.push_back(connectTo(server.getPort()));
        }
        ASSERT_TRUE(eventually([&] { return 5 == server.m_steps.count("start"); }));
        EXPECT_EQ(0, server.stop());
        EXPECT_EQ(0, server.uninit());
        EXPECT_EQ(0, server.m_steps.count("stop")); // they outlive both
        EXPECT_TRUE(isSilent(vecPeer[0]));
    }
    EXPECT_EQ(5U, takeLines(log, CONNECTION_LINE).size());
    for (TcpSocket& peer : vecPeer) {
        EXPECT_TRUE(sawEnd(peer));
        (void)peer.close();
    }
}

TEST(TcpServerEnd, OpenConnectionEndsAsAnErrorWouldEndIt)
{
    StepLog steps;
    const std::set<std::string> none;
    struct Server : public TcpServer // without a destructor of its own
    {
        explicit Server(StepLog& stepLog, const std::set<std::string>& failing)
            : m_steps(stepLog), m_none(failing)
        {
        }
        TcpClient* createClient() override
        {
            return new StepClient(m_steps, m_none, 3);
        }
        StepLog& m_steps;
        const std::set<std::string>& m_none;
        using TcpServer::m_socket;
    };
    TcpSocket peer;
    int nListener = -1;
    {
        Server server(steps, none);
        ASSERT_EQ(0, server.init(0, "127.0.0.1", 4096, 4096));
        nListener = server.m_socket.getFd();
        peer = connectTo(portOf(nListener));
        ASSERT_TRUE(
            eventually([&] { return 0 == server.pollOnce() && 0 != steps.count("start"); }));
        (void)steps.take();
    }
    EXPECT_EQ(Steps({"onError 3", "stop 3", "uninit 3", "delete 3"}), steps.take());
    EXPECT_TRUE(sawEnd(peer));
    EXPECT_FALSE(isOpen(nListener));
    (void)peer.close();
}

TEST(TcpServerEnd, ItsEndDoesNotRaceWithConnectingPeers)
{
    for (int nRound = 0; nRound < 5; ++nRound) {
        std::atomic<bool> bQuit{false};
        std::thread peers;
        {
            StepServer server;
            server.listen();
            ASSERT_EQ(0, server.start());
            const uint16_t u16Port = server.getPort();
            peers = std::thread([&bQuit, u16Port] {
                while (!bQuit) {
                    TcpSocket peer;
                    if (0 == peer.create() && 0 == peer.connect("127.0.0.1", u16Port)) {
                        (void)send(peer.getFd(), "x", 1, MSG_NOSIGNAL);
                    }
                    (void)peer.close();
                    sleepFor(Time(0, 500)); // or the server would never be done with accepting
                }
            });
            EXPECT_TRUE(eventually([&] { return server.m_nClients > 3; }));
        }
        bQuit = true;
        peers.join();
    }
}

// Its registration is never freed, and knows of no connection any more.
TEST(TcpServerEnd, ConnectionOnDescriptorZeroEndsOnce)
{
    StepServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    const LogCapture quiet;
    {
        const ZeroIsFree zero;
        ASSERT_TRUE(server.poll("start"));
        ASSERT_EQ(0, server.m_pLast->getSocket().getFd());
        (void)peer.close();
        ASSERT_TRUE(server.poll("delete"));
        EXPECT_FALSE(isOpen(0));
    }
    TcpSocket next = connectTo(server.getPort());

    EXPECT_TRUE(server.poll("start", 2));

    EXPECT_EQ(1, server.m_steps.count("delete"));
    (void)next.close();
}

TEST(TcpServerEnd, StaticServerDiesBeforeWhatItsConnectionsUse)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // a process that has used none of them yet
    EXPECT_EXIT(exitInOrder(), testing::ExitedWithCode(0), "");
}
