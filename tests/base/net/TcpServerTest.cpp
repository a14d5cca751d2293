// TcpServer: listening, accepting, routing readiness, and the end of connections.
#include "TcpServer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <thread>

#include <arpa/inet.h>
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

namespace {

using Lines = std::vector<std::string>;
using Steps = std::vector<std::string>;

int optionOf(int nFd, int nLevel, int nName)
{
    int nValue = -1;
    socklen_t uLength = sizeof(nValue);
    EXPECT_EQ(0, getsockopt(nFd, nLevel, nName, &nValue, &uLength));
    return nValue;
}

/** The peer has closed: nothing more comes, and the end is told. */
bool sawEnd(const TcpSocket& socket)
{
    char cByte = 0;
    return socket.waitReadable(Time(10, 0)) && recv(socket.getFd(), &cByte, 1, 0) <= 0;
}

/** Nothing comes, not even the end. */
bool isSilent(const TcpSocket& socket)
{
    char cByte = 0;
    return -1 == recv(socket.getFd(), &cByte, 1, MSG_DONTWAIT) && EAGAIN == errno;
}

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

const char* const CONNECTION_LINE = "[info ] [TcpServer ] [onPollError] tcp client error, delete "
                                    "from epoll and close !!\n";

} // namespace

TEST(TcpServer, InitListensOnAllAddressesOrOne)
{
    JournalServer server;
    ASSERT_EQ(0, server.init(0, nullptr, 4096, 4096));
    sockaddr_in address{};
    socklen_t uLength = sizeof(address);
    ASSERT_EQ(0,
              getsockname(server.getListenFd(), reinterpret_cast<sockaddr*>(&address), &uLength));
    EXPECT_EQ(htonl(INADDR_ANY), address.sin_addr.s_addr);

    JournalServer other;
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
            JournalServer server;
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
    JournalServer first;
    first.listen();
    JournalServer second;
    LogCapture log;

    EXPECT_EQ(1, second.init(first.getPort(), "127.0.0.1", 4096, 4096));

    EXPECT_EQ(Lines({"[error] [TcpServer ] [init] accept socket bind error !!   accept "
                     "ip:127.0.0.1 port:" +
                     std::to_string(first.getPort()) + "\n"}),
              takeLines(log, "[TcpServer ]"));
}

TEST(TcpServer, UninitStopsListening)
{
    JournalServer server;
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

TEST(TcpServer, ConnectionIsTunedServedAndAnnounced)
{
    JournalServer server;
    server.listen();
    LogCapture log;
    TcpSocket peer = connectTo(server.getPort());

    ASSERT_TRUE(server.poll("start"));

    EXPECT_EQ(Steps({"create 1", "init 1", "start 1"}), server.m_journal.take());
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

TEST(TcpServer, PassReadsSixteenTimesAndTheRestHasItsTurn)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    EXPECT_EQ(0, server.pollOnce());      // writable
    const std::string strSent(3000, 'r'); // 300 reads, one edge
    ASSERT_EQ(3000, send(peer.getFd(), strSent.data(), strSent.size(), 0));
    int32_t nLeft = 0;
    ASSERT_TRUE(eventually(
        [&] { return 0 == server.m_pLast->getSocket().getRcvQueue(nLeft) && 3000 == nLeft; }));

    EXPECT_EQ(0, server.pollOnce());
    ASSERT_EQ(0, server.m_pLast->getSocket().getRcvQueue(nLeft));
    EXPECT_EQ(3000 - 160, nLeft);

    for (int i = 0; i < 18; ++i) {
        EXPECT_EQ(0, server.pollOnce());
    }
    EXPECT_EQ(strSent, readBytes(peer, 3000));
    (void)peer.close();
}

TEST(TcpServer, FloodDoesNotKeepOthersWaiting)
{
    JournalServer server;
    server.listen();
    TcpSocket flood = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    JournalClient* pFlooded = server.m_pLast;
    TcpSocket other = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start", 2));
    const std::string strSent(10000, 'r'); // 63 passes
    ASSERT_EQ(10000, send(flood.getFd(), strSent.data(), strSent.size(), 0));
    ASSERT_TRUE(pFlooded->getSocket().waitReadable(Time(30, 0)));
    ASSERT_EQ(1, send(other.getFd(), "x", 1, 0));
    ASSERT_TRUE(server.m_pLast->getSocket().waitReadable(Time(30, 0)));

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, server.pollOnce());
    }

    EXPECT_EQ("x", readPending(other));
    EXPECT_TRUE(pFlooded->getSocket().waitReadable(Time()));
    (void)flood.close();
    (void)other.close();
}

TEST(TcpServer, ConnectionThatCannotBeArmedAgainEnds)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    const std::string strSent(3000, 'r');
    ASSERT_EQ(3000, send(peer.getFd(), strSent.data(), strSent.size(), 0));
    LogCapture log;
    FaultScope fault("epoll_ctl:1:ENOMEM");

    ASSERT_TRUE(server.poll("delete"));

    const std::string strLine = std::string("epoll_ctl err: ") + strerror(ENOMEM) + "\n";
    EXPECT_EQ(1U, takeLines(log, strLine.c_str()).size());
    (void)peer.close();
}

TEST(TcpServer, ConnectionThatNeverReadsLeavesTheServerStoppable)
{
    class Server : public TcpServer
    {
    public:
        ~Server() override
        {
            endService();
        }
        TcpClient* createClient() override
        {
            return new TcpClient; // its onRead does not read
        }
        using TcpServer::m_socket;
    };
    LogCapture log;
    Server server;
    ASSERT_EQ(0, server.init(0, "127.0.0.1", 4096, 4096));
    TcpSocket peer = connectTo(portOf(server.m_socket.getFd()));
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
            return (m_nWrites < m_nWanted || m_nTurns < m_nWanted) ? 0 : 60000;
        }
        int m_nWanted = 0;
        int m_nWrites = 0;
        int m_nTurns = 0;
    };
    class Server : public TcpServer
    {
    public:
        ~Server() override
        {
            endService();
        }
        TcpClient* createClient() override
        {
            m_pClient = new LateClient;
            return m_pClient;
        }
        using TcpServer::m_socket;
        LateClient* m_pClient = nullptr;
    };
    Server server;
    ASSERT_EQ(0, server.init(0, "127.0.0.1", 4096, 4096));
    TcpSocket peer = connectTo(portOf(server.m_socket.getFd()));
    ASSERT_TRUE(eventually([&] {
        return 0 == server.pollOnce() && nullptr != server.m_pClient &&
               0 != server.m_pClient->m_nWrites;
    }));
    server.m_pClient->m_nWanted = 1 + server.m_pClient->m_nWrites;

    EXPECT_EQ(0, server.pollOnce());

    EXPECT_TRUE(isSilent(peer)) << "the last attempt was enough";
    EXPECT_EQ(server.m_pClient->m_nWanted, server.m_pClient->m_nWrites);
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
    class Server : public TcpServer
    {
    public:
        ~Server() override
        {
            endService();
        }
        TcpClient* createClient() override
        {
            return new TimedClient;
        }
        using TcpServer::m_socket;
    };
    Server server;
    ASSERT_EQ(0, server.init(0, "127.0.0.1", 4096, 4096));
    TcpSocket peer = connectTo(portOf(server.m_socket.getFd()));
    const uint32_t u32StartMs = monotonicMs32();
    ASSERT_EQ(0, server.start());

    EXPECT_TRUE(sawEnd(peer));

    EXPECT_GE(monotonicMs32() - u32StartMs, 200U);
    (void)peer.close();
}

TEST(TcpServer, AllPendingConnectionsAreAcceptedAtOnce)
{
    JournalServer server;
    server.listen();
    std::vector<TcpSocket> vecPeer;
    for (int i = 0; i < 15; ++i) {
        vecPeer.push_back(connectTo(server.getPort()));
    }

    // The last ones may still be on their way through the kernel.
    int nPasses = 0;
    for (; nPasses < 15 && server.m_journal.count("start") < 15; ++nPasses) {
        EXPECT_EQ(0, server.pollOnce());
    }

    EXPECT_EQ(15, server.m_journal.count("start"));
    EXPECT_GT(8, nPasses);
    for (TcpSocket& peer : vecPeer) {
        (void)peer.close();
    }
}

TEST(TcpServer, PassAcceptsSixteenConnectionsAndTheNextOneTheRest)
{
    JournalServer server;
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
    EXPECT_EQ(16, server.m_journal.count("start"));
    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(20, server.m_journal.count("start"));
    for (TcpSocket& peer : vecPeer) {
        (void)peer.close();
    }
}

TEST(TcpServer, BeyondItsMostConnectionsTheNewestIsRefused)
{
    JournalServer server(2);
    server.listen();
    TcpSocket first = connectTo(server.getPort());
    TcpSocket second = connectTo(server.getPort());
    TcpSocket third = connectTo(server.getPort());

    ASSERT_TRUE(eventually([&] { return 0 == server.pollOnce() && third.waitReadable(Time()); }));

    EXPECT_TRUE(sawEnd(third));
    EXPECT_TRUE(isSilent(first));
    EXPECT_TRUE(isSilent(second));
    EXPECT_EQ(2, server.m_journal.count("create"));

    (void)first.close();
    ASSERT_TRUE(server.poll("delete"));
    TcpSocket fourth = connectTo(server.getPort());
    EXPECT_TRUE(server.poll("start", 3)) << "there is room again";
    for (TcpSocket* pPeer : {&second, &third, &fourth}) {
        (void)pPeer->close();
    }
}

TEST(TcpServer, BeyondItsMostConnectionsOneMayMakeRoom)
{
    JournalServer server(2);
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

TEST(TcpServer, AcceptedSocketsDoNotWaitForMoreToSend)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));

    EXPECT_EQ(1, optionOf(server.m_pLast->getSocket().getFd(), IPPROTO_TCP, TCP_NODELAY));
    (void)peer.close();
}

TEST(TcpServer, SocketThatWaitsForMoreToSendIsServedAllTheSame)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    LogCapture log;
    FaultScope fault("setsockopt:7:ENOMEM"); // the last one, behind the buffers

    ASSERT_TRUE(server.poll("start"));

    EXPECT_EQ(1U, faultHits());
    EXPECT_EQ(0, optionOf(server.m_pLast->getSocket().getFd(), IPPROTO_TCP, TCP_NODELAY));
    EXPECT_EQ(Lines(), takeLines(log, "nRet"));
    (void)peer.close();
}

TEST(TcpServer, HangUpEndsTheConnectionOnce)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    (void)server.m_journal.take();
    const int nFd = server.m_pLast->getSocket().getFd();
    LogCapture log;

    (void)peer.close();
    ASSERT_TRUE(server.poll("delete"));
    EXPECT_EQ(0, server.pollOnce()); // nothing more comes of it

    EXPECT_EQ(Steps({"onError 1", "stop 1", "uninit 1", "delete 1"}), server.m_journal.take());
    EXPECT_FALSE(isOpen(nFd));
    EXPECT_EQ(Lines({CONNECTION_LINE}), takeLines(log));
}

TEST(TcpServer, ResetEndsTheConnectionOnce)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    (void)server.m_journal.take();
    const int nFd = server.m_pLast->getSocket().getFd();

    ASSERT_EQ(0, peer.setOptLinger(true, 0));
    (void)peer.close();
    ASSERT_TRUE(server.poll("delete"));
    EXPECT_EQ(0, server.pollOnce());

    EXPECT_EQ(Steps({"onError 1", "stop 1", "uninit 1", "delete 1"}), server.m_journal.take());
    EXPECT_FALSE(isOpen(nFd));
}

TEST(TcpServer, FailedStopLeavesOutUninit)
{
    JournalServer server;
    server.listen();
    server.m_failing = {"stop"};
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    (void)server.m_journal.take();

    (void)peer.close();
    ASSERT_TRUE(server.poll("delete"));

    EXPECT_EQ(Steps({"onError 1", "stop 1", "delete 1"}), server.m_journal.take());
}

TEST(TcpServer, FailedReadOrWriteEndsTheConnection)
{
    JournalServer server;
    server.listen();
    TcpSocket reader = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    server.m_failing = {"onRead"};
    (void)server.m_journal.take();

    ASSERT_EQ(1, send(reader.getFd(), "x", 1, 0));
    ASSERT_TRUE(server.poll("delete"));
    EXPECT_EQ(Steps({"onRead 1", "onError 1", "stop 1", "uninit 1", "delete 1"}),
              server.m_journal.take());
    EXPECT_TRUE(sawEnd(reader));

    server.m_failing = {"onWrite"};
    TcpSocket writer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("delete")); // writable at once
    EXPECT_EQ(Steps({"create 2", "init 2", "start 2", "onWrite 2", "onError 2", "stop 2",
                     "uninit 2", "delete 2"}),
              server.m_journal.take());
    EXPECT_TRUE(sawEnd(writer));
    (void)reader.close();
    (void)writer.close();
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

TEST(TcpServer, WriteThatFailsOnAnotherThreadEndsTheConnection)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    ASSERT_TRUE(server.poll("start"));
    (void)server.pollOnce(); // the first out event
    (void)server.m_journal.take();
    FaultScope fault("sendmsg:1:ENOMEM");

    std::thread producer([&] {
        char* pData = static_cast<char*>(malloc(4));
        memcpy(pData, "data", 4);
        server.m_pLast->send(SafePointer_C<char>(pData), 4);
    });
    producer.join();
    EXPECT_EQ(Steps(), server.m_journal.take()); // only the reactor ends it
    ASSERT_TRUE(server.poll("delete"));

    EXPECT_EQ(1U, faultHits());
    EXPECT_EQ(Steps({"onError 1", "stop 1", "uninit 1", "delete 1"}), server.m_journal.take());
    EXPECT_TRUE(sawEnd(peer));
    (void)peer.close();
}

TEST(TcpServer, SocketThatCantBeTunedIsClosedAndItsClientKept)
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
        Journal* pJournal = nullptr;
        {
            JournalServer server;
            pJournal = &server.m_journal;
            server.listen();
            TcpSocket peer = connectTo(server.getPort());
            TcpSocket next = connectTo(server.getPort());
            LogCapture log;
            FaultScope fault(entry.pPlan);

            ASSERT_TRUE(server.poll("start")); // the loop goes on to the next

            EXPECT_EQ(1U, faultHits());
            EXPECT_EQ(Lines({acceptLine(entry.pText)}), takeLines(log, "[error] [TcpServer ]"));
            // Deliberate: not destroyed, neither initialised.
            EXPECT_EQ(Steps({"create 1", "create 2", "init 2", "start 2"}), pJournal->take());
            EXPECT_TRUE(sawEnd(peer));
            (void)peer.close();
            (void)next.close();
        }
    }
}

TEST(TcpServer, KeptClientsAreFreedWithTheServer)
{
    Journal journal;
    const std::set<std::string> none;
    struct Server : public TcpServer
    {
        Server(Journal& rJournal, const std::set<std::string>& rNone)
            : m_journal(rJournal), m_none(rNone)
        {
        }
        ~Server() override
        {
            endService();
        }
        TcpClient* createClient() override
        {
            return new JournalClient(m_journal, m_none, 7);
        }
        Journal& m_journal;
        const std::set<std::string>& m_none;
        using TcpServer::m_socket;
    };
    {
        Server server(journal, none);
        ASSERT_EQ(0, server.init(0, "127.0.0.1", 4096, 4096));
        TcpSocket peer = connectTo(portOf(server.m_socket.getFd()));
        FaultScope fault("setsockopt:1:ENOMEM");
        ASSERT_TRUE(eventually([&] { return 0 == server.pollOnce() && sawEnd(peer); }));
        EXPECT_EQ(Steps(), journal.take());
        (void)peer.close();
    }
    EXPECT_EQ(Steps({"delete 7"}), journal.take());
}

TEST(TcpServer, InterruptedAcceptIsLoggedAndTheLoopGoesOn)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    LogCapture log;
    FaultScope fault("accept4:1:EINTR");

    EXPECT_EQ(0, server.pollOnce());

    EXPECT_EQ(Lines({acceptLine("tcp client socket set unblock error !!\n")}),
              takeLines(log, "[error]"));
    EXPECT_EQ(Steps({"create 1", "create 2", "init 2", "start 2"}), server.m_journal.take());
    (void)peer.close();
}

TEST(TcpServer, WithoutAClientTheConnectionStaysOpenAndUnserved)
{
    JournalServer server;
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
    EXPECT_EQ(Steps({"create 1", "create 2", "init 2", "start 2"}), server.m_journal.take());
    (void)peer.close();
    (void)next.close();
}

TEST(TcpServer, WithoutMemoryForAClientTheConnectionIsClosed)
{
    class Server : public TcpServer
    {
    public:
        ~Server() override
        {
            endService();
        }
        TcpClient* createClient() override
        {
            throw std::bad_alloc();
        }
        using TcpServer::m_socket;
    };
    Server server;
    ASSERT_EQ(0, server.init(0, "127.0.0.1", 4096, 4096));
    TcpSocket peer = connectTo(portOf(server.m_socket.getFd()));
    LogCapture log;

    EXPECT_TRUE(eventually([&] { return 0 == server.pollOnce() && peer.waitReadable(Time()); }));

    EXPECT_TRUE(sawEnd(peer));
    EXPECT_EQ(Lines({acceptLine("create(new) tcp client error !!\n")}), takeLines(log));
    (void)peer.close();
}

TEST(TcpServer, WithoutMemoryToKeepAnUntunedClientItIsDestroyed)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    server.m_onCreate = [] {
        (void)faultPlan(
            ("malloc=" + std::to_string(sizeof(void*)) + ":1:ENOMEM;setsockopt:1:ENOMEM").c_str());
    };

    ASSERT_TRUE(server.poll("delete"));
    (void)faultPlan("");

    EXPECT_EQ(Steps({"create 1", "delete 1"}), server.m_journal.take());
    EXPECT_TRUE(sawEnd(peer));
    (void)peer.close();
}

TEST(TcpServer, EachFailedStepOfAClientEndsIt)
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
        JournalServer server;
        server.listen();
        server.m_failing = {entry.pFailing};
        TcpSocket peer = connectTo(server.getPort());
        LogCapture log;
        FaultScope fault(entry.pPlan);

        ASSERT_TRUE(server.poll("delete"));

        EXPECT_EQ(entry.steps, server.m_journal.take());
        EXPECT_EQ(Lines({acceptLine(entry.pText)}), takeLines(log, "[TcpServer ]"));
        EXPECT_TRUE(sawEnd(peer));
        (void)peer.close();
    }
}

TEST(TcpServer, FailedAcceptIsTriedAgainWithoutANewConnection)
{
    for (const int nError : {ECONNABORTED, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM, EPROTO}) {
        JournalServer server;
        server.listen();
        TcpSocket peer = connectTo(server.getPort());
        FaultScope fault(("accept4:1:" + std::to_string(nError)).c_str());

        EXPECT_TRUE(server.poll("start"));

        EXPECT_EQ(1U, faultHits());
        (void)peer.close();
    }
}

TEST(TcpServer, AcceptThatKeepsFailingIsTriedInEachPass)
{
    JournalServer server;
    server.listen();
    TcpSocket peer = connectTo(server.getPort());
    FaultScope fault("accept4:1-3:EMFILE");

    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(2U, faultHits()); // the event's, and once more at the end of the pass
    EXPECT_EQ(0, server.pollOnce());
    EXPECT_EQ(3U, faultHits()); // not in a loop
    EXPECT_EQ(0, server.m_journal.count("start"));

    EXPECT_TRUE(server.poll("start"));
    (void)peer.close();
}

TEST(TcpServer, NothingIsTriedAgainAfterTheLastConnection)
{
    JournalServer server;
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

TEST(TcpServer, RunningOutOfDescriptorsIsOverWhenClientsLeave)
{
    DescriptorLimit limit(64);
    std::vector<TcpSocket> vecPeer = limit.makePeers(15);
    JournalServer server;
    limit.apply(6);
    server.listen();
    for (TcpSocket& peer : vecPeer) {
        ASSERT_EQ(0, peer.connect("127.0.0.1", server.getPort()));
    }
    ASSERT_TRUE(server.poll("start", 3));
    EXPECT_EQ(0, server.pollOnce());
    EXPECT_LT(server.m_journal.count("start"), 15);

    // No new connection comes: only the departures make room.
    for (TcpSocket& peer : vecPeer) {
        (void)peer.close();
    }
    EXPECT_TRUE(server.poll("delete", 15));
    EXPECT_EQ(15, server.m_journal.count("start"));
}

TEST(TcpServer, ManyClientsPassThroughFewDescriptors)
{
    const size_t uAtOnce = 24; // more than the server can have, the rest within its backlog
    const size_t uLeaving = 12;
    DescriptorLimit limit(64);
    std::vector<TcpSocket> vecPeer = limit.makePeers(60);
    JournalServer server;
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

    EXPECT_TRUE(eventually([&] { return 60 == server.m_journal.count("delete"); }));
}

TEST(TcpServer, ItsEndEndsTheOpenConnections)
{
    std::vector<TcpSocket> vecPeer;
    LogCapture log;
    {
        JournalServer server;
        server.listen();
        ASSERT_EQ(0, server.start());
        for (int i = 0; i < 5; ++i) {
            vecPeer.push_back(connectTo(server.getPort()));
        }
        ASSERT_TRUE(eventually([&] { return 5 == server.m_journal.count("start"); }));
        EXPECT_EQ(0, server.stop());
        EXPECT_EQ(0, server.uninit());
        EXPECT_EQ(0, server.m_journal.count("stop")); // they outlive both
        EXPECT_TRUE(isSilent(vecPeer[0]));
    }
    EXPECT_EQ(5U, takeLines(log, CONNECTION_LINE).size());
    for (TcpSocket& peer : vecPeer) {
        EXPECT_TRUE(sawEnd(peer));
        (void)peer.close();
    }
}

TEST(TcpServer, OpenConnectionEndsAsAnErrorWouldEndIt)
{
    Journal journal;
    const std::set<std::string> none;
    struct Server : public TcpServer // without a destructor of its own
    {
        explicit Server(Journal& rJournal, const std::set<std::string>& rNone)
            : m_journal(rJournal), m_none(rNone)
        {
        }
        TcpClient* createClient() override
        {
            return new JournalClient(m_journal, m_none, 3);
        }
        Journal& m_journal;
        const std::set<std::string>& m_none;
        using TcpServer::m_socket;
    };
    TcpSocket peer;
    int nListener = -1;
    {
        Server server(journal, none);
        ASSERT_EQ(0, server.init(0, "127.0.0.1", 4096, 4096));
        nListener = server.m_socket.getFd();
        peer = connectTo(portOf(nListener));
        ASSERT_TRUE(
            eventually([&] { return 0 == server.pollOnce() && 0 != journal.count("start"); }));
        (void)journal.take();
    }
    EXPECT_EQ(Steps({"onError 3", "stop 3", "uninit 3", "delete 3"}), journal.take());
    EXPECT_TRUE(sawEnd(peer));
    EXPECT_FALSE(isOpen(nListener));
    (void)peer.close();
}

TEST(TcpServer, ItsEndDoesNotRaceWithConnectingPeers)
{
    for (int nRound = 0; nRound < 5; ++nRound) {
        std::atomic<bool> bQuit{false};
        std::thread peers;
        {
            JournalServer server;
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

TEST(TcpServer, PeersComeAndGoWhileOthersAreSentTo)
{
    JournalServer server;
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
    EXPECT_TRUE(eventually([&] { return 100 == server.m_journal.count("delete"); }));
    for (const char* pStep : {"create", "init", "start", "onError", "stop", "uninit"}) {
        EXPECT_EQ(100, server.m_journal.count(pStep)) << pStep;
    }
}
