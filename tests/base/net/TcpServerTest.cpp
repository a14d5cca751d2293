// TcpServer: listening, and connections of any class.
#include "TcpServer.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "ServerFixture.h"

namespace {

using Lines = std::vector<std::string>;

} // namespace

TEST(TcpServer, InitListensOnAllAddressesOrOne)
{
    StepServer server;
    ASSERT_EQ(0, server.init(0, nullptr, 4096, 4096));
    sockaddr_in address{};
    socklen_t uLength = sizeof(address);
    ASSERT_EQ(0,
              getsockname(server.getListenFd(), reinterpret_cast<sockaddr*>(&address), &uLength));
    EXPECT_EQ(htonl(INADDR_ANY), address.sin_addr.s_addr);

    StepServer other;
    other.listen();
    const int nFd = other.getListenFd();
    ASSERT_EQ(0, getsockname(nFd, reinterpret_cast<sockaddr*>(&address), &uLength));
    EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
    EXPECT_NE(0, fcntl(nFd, F_GETFL) & O_NONBLOCK);
    EXPECT_NE(0, fcntl(nFd, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(1, optionOf(nFd, SOL_SOCKET, SO_ACCEPTCONN));
    EXPECT_EQ(1, optionOf(nFd, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(1, optionOf(nFd, SOL_SOCKET, SO_KEEPALIVE));
    EXPECT_EQ(5, optionOf(nFd, IPPROTO_TCP, TCP_KEEPIDLE));
    EXPECT_EQ(1, optionOf(nFd, IPPROTO_TCP, TCP_KEEPINTVL));
    EXPECT_EQ(2, optionOf(nFd, IPPROTO_TCP, TCP_KEEPCNT));
    tcp_info info{};
    uLength = sizeof(info);
    ASSERT_EQ(0, getsockopt(nFd, IPPROTO_TCP, TCP_INFO, &info, &uLength));
    EXPECT_EQ(20U, info.tcpi_sacked); // of a listener: the backlog
}

TEST(TcpServer, EachFailedStepOfInitIsLogged)
{
    struct Case
    {
        const char* pPlan;
        const char* pText;
        bool bStaysOpen;
    };
    const Case aCase[] = {
        {"socket:1:EMFILE", "create accept socket error !!", false},
        {"fcntl:1:EBADF", "accept socket set unblock error !!", true},
        {"setsockopt:1:ENOMEM", "accept socket set keepalive error !!", true},
        {"setsockopt:5:ENOMEM", "accept socket set reuse addr error !!", true},
        {"bind:1:EADDRINUSE", "accept socket bind error !!", true},
        {"listen:1:EADDRINUSE", "accept socket listen error !!", true},
        {"epoll_ctl:1:ENOMEM", "accept socket add fd error !!", false},
    };
    for (const char* pIp : {static_cast<const char*>(nullptr), "127.0.0.1"}) {
        const std::string strEnd =
            (nullptr == pIp) ? "   accept ip:(null) port:0\n" : "   accept ip:127.0.0.1 port:0\n";
        for (const Case& entry : aCase) {
            StepServer server;
            LogCapture log;
            {
                FaultScope fault(entry.pPlan);
                EXPECT_EQ(1, server.init(0, pIp, 4096, 4096));
                EXPECT_EQ(1U, faultHits());
            }
            EXPECT_EQ(Lines({std::string("[error] [TcpServer ] [init] ") + entry.pText + strEnd}),
                      takeLines(log, "[TcpServer ]"));
            EXPECT_EQ(entry.bStaysOpen, server.getListenFd() >= 0) << entry.pText;

            // A socket left open is in the way until it is given up.
            EXPECT_EQ(entry.bStaysOpen ? 1 : 0, server.init(0, pIp, 4096, 4096)) << entry.pText;
            EXPECT_EQ(0, server.uninit());
            EXPECT_EQ(0, server.init(0, pIp, 4096, 4096));
        }
    }
}

TEST(TcpServer, TakenPortIsRefused)
{
    StepServer first;
    first.listen();
    StepServer second;
    LogCapture log;

    EXPECT_EQ(1, second.init(first.getPort(), "127.0.0.1", 4096, 4096));

    EXPECT_EQ(Lines({"[error] [TcpServer ] [init] accept socket bind error !!   accept "
                     "ip:127.0.0.1 port:" +
                     std::to_string(first.getPort()) + "\n"}),
              takeLines(log, "[TcpServer ]"));
}

TEST(TcpServer, UninitStopsListening)
{
    StepServer server;
    server.listen();
    const int nFd = server.getListenFd();
    LogCapture log;

    EXPECT_EQ(0, server.uninit());
    EXPECT_FALSE(isOpen(nFd));
    EXPECT_EQ(Lines(), takeLines(log));

    EXPECT_EQ(0, server.uninit()); // nothing left
    EXPECT_EQ(Lines({"[warn ] [EPoll ] [deleteFd] occur fd <=0 while epoll delete fd, this will "
                     "lead to memory leak!\n"}),
              takeLines(log));

    server.listen(); // and again
    TcpSocket peer = connectTo(server.getPort());
    EXPECT_TRUE(server.poll("start"));
    (void)peer.close();
}

TEST(TcpServer, PeersComeAndGoWhileOthersAreSentTo)
{
    StepServer server;
    server.listen();
    ASSERT_EQ(0, server.start());
    const uint16_t u16Port = server.getPort();
    std::atomic<int> nRounds{0};
    std::vector<std::thread> vecPeer;
    for (int i = 0; i < 4; ++i) {
        vecPeer.emplace_back([&nRounds, u16Port, i] {
            const std::string strSent(static_cast<size_t>(1000 * (i + 1)),
                                      static_cast<char>('a' + i));
            for (int j = 0; j < 25; ++j) {
                TcpSocket peer = connectTo(u16Port);
                EXPECT_EQ(0, peer.writeE(strSent.data(), static_cast<int>(strSent.size())));
                if (0 != (i + j) % 3) { // others leave with their answer unread
                    EXPECT_EQ(strSent, readBytes(peer, strSent.size()));
                }
                (void)peer.close();
                ++nRounds;
            }
        });
    }
    for (std::thread& peer : vecPeer) {
        peer.join();
    }

    EXPECT_EQ(100, nRounds.load());
    EXPECT_TRUE(eventually([&] { return 100 == server.m_steps.count("delete"); }));
    for (const char* pStep : {"create", "init", "start", "onError", "stop", "uninit"}) {
        EXPECT_EQ(100, server.m_steps.count(pStep)) << pStep;
    }
}

TEST(TcpServer, ConnectionThatNeverReadsLeavesItStoppable)
{
    LogCapture log;
    ServerOf<TcpClient> server; // its onRead does not read
    ASSERT_EQ(0, server.listen());
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_EQ(1, send(peer.getFd(), "x", 1, 0));
    ASSERT_EQ(0, server.start());
    ASSERT_TRUE(eventually([&] { return std::string::npos != log.text().find("connected"); }));

    EXPECT_EQ(0, server.stop());

    (void)peer.close();
}

TEST(TcpServer, ConnectionWhoseTimeIsOverMayWriteOnceMore)
{
    class LateClient : public TcpClient
    {
    public:
        int onWrite(EPollEvent&) override
        {
            ++m_nWrites;
            return 0;
        }
        int onTurn() override
        {
            ++m_nTurns;
            return 0;
        }
        int getTimeLeft(uint32_t) override
        {
            return (m_nWrites < m_nWanted || m_nTurns < m_nWanted) ? 0 : 1;
        }
        int m_nWanted = 0;
        int m_nWrites = 0;
        int m_nTurns = 0;
    };
    ServerOf<LateClient> server;
    ASSERT_EQ(0, server.listen());
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(eventually([&] {
        return 0 == server.pollOnce() && nullptr != server.m_pLast &&
               0 != server.m_pLast->m_nWrites;
    }));
    server.m_pLast->m_nWanted = 1 + server.m_pLast->m_nWrites;

    EXPECT_EQ(0, server.pollOnce());

    EXPECT_TRUE(isSilent(peer)) << "the last attempt was enough";
    EXPECT_EQ(server.m_pLast->m_nWanted, server.m_pLast->m_nWrites);
    (void)peer.close();
}

TEST(TcpServer, ConnectionEndsWhenItsTimeIsOver)
{
    class TimedClient : public TcpClient
    {
    public:
        int getTimeLeft(uint32_t u32NowMs) override
        {
            return 200 - static_cast<int>(u32NowMs - m_u32StartMs);
        }
        const uint32_t m_u32StartMs = monotonicMs32();
    };
    ServerOf<TimedClient> server;
    ASSERT_EQ(0, server.listen());
    TcpSocket peer = connectTo(server.getPort());
    const uint32_t u32StartMs = monotonicMs32();
    ASSERT_EQ(0, server.start());

    EXPECT_TRUE(sawEnd(peer));

    EXPECT_GE(monotonicMs32() - u32StartMs, 200U);
    (void)peer.close();
}

TEST(TcpServer, ReadMayLetGoOfTheConnection)
{
    class OneByteClient : public TcpClient
    {
    public:
        int onRead(EPollEvent& event) override
        {
            *event.m_ppClient = nullptr;
            int nDone = 0;
            return m_socket.read(&m_cByte, 1, nDone);
        }
        char m_cByte = 0;
    };
    class OneByteServer : public TcpServer
    {
    public:
        TcpClient* createClient() override
        {
            m_pClient = std::make_unique<OneByteClient>();
            return m_pClient.get();
        }
        uint16_t getPort() const
        {
            return portOf(m_socket.getFd());
        }
        std::unique_ptr<OneByteClient> m_pClient;
    };
    OneByteServer server;
    ASSERT_EQ(0, server.init(0, "127.0.0.1", 8192, 16384));
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_EQ(2, send(peer.getFd(), "12", 2, 0));

    ASSERT_TRUE(eventually([&] {
        (void)server.pollOnce();
        return nullptr != server.m_pClient && 0 != server.m_pClient->m_cByte;
    }));

    EXPECT_EQ('1', server.m_pClient->m_cByte) << "read once";
    EXPECT_TRUE(server.m_pClient->getSocket().waitReadable(Time(10, 0))) << "and left open";
    (void)server.m_pClient->getSocket().close();
    (void)server.uninit();
    (void)peer.close();
}

TEST(TcpServer, LastAttemptMayLetGoOfTheConnection)
{
    class LeavingClient : public TcpClient
    {
    public:
        int onWrite(EPollEvent& event) override
        {
            ++m_nWrites;
            if (m_nLeft <= 0) {
                *event.m_ppClient = nullptr;
            }
            return 0;
        }
        int getTimeLeft(uint32_t) override
        {
            ++m_nAsked;
            return m_nLeft;
        }
        int m_nLeft = 1;
        int m_nAsked = 0;
        int m_nWrites = 0;
    };
    ServerOf<LeavingClient> server;
    ASSERT_EQ(0, server.listen());
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(eventually([&] {
        return 0 == server.pollOnce() && nullptr != server.m_pLast &&
               0 != server.m_pLast->m_nWrites;
    }));
    const std::unique_ptr<LeavingClient> pLeaving(server.m_pLast);
    pLeaving->m_nLeft = 0;
    pLeaving->m_nAsked = 0;
    TcpSocket next = connectTo(server.getPort()); // ends the wait

    EXPECT_EQ(0, server.pollOnce());

    EXPECT_EQ(1, pLeaving->m_nAsked) << "who let go may be gone";
    EXPECT_TRUE(isSilent(peer)) << "left open";
    (void)pLeaving->getSocket().close();
    (void)next.close();
    (void)peer.close();
}
