// The server with real clients: connections come, are independent, and leave nothing behind.
#include "WebCamera.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CardFolder.h"
#include "CommucationModule.h"
#include "Descriptors.h"
#include "Eventually.h"
#include "FakeSystem.h"
#include "Fault.h"
#include "LogCapture.h"
#include "Threads.h"
#include "Time.h"

namespace {

/** A TCP client of the service. */
class Peer
{
public:
    explicit Peer(int nReceiveBuffer = 0) : m_nFd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        if (nReceiveBuffer > 0) {
            setsockopt(m_nFd, SOL_SOCKET, SO_RCVBUF, &nReceiveBuffer, sizeof(nReceiveBuffer));
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(8329);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_bConnected =
            0 == ::connect(m_nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer()
    {
        ::close(m_nFd);
    }

    bool isConnected() const
    {
        return m_bConnected;
    }

    void send(const std::string& strBytes) const
    {
        (void)!::send(m_nFd, strBytes.data(), strBytes.size(), MSG_NOSIGNAL);
    }

    /** Send no more, but go on reading. */
    void finish() const
    {
        (void)::shutdown(m_nFd, SHUT_WR);
    }

    /** Read until so many bytes have come in all, or the service closes. @return all bytes */
    const std::string& readUntil(size_t uCount)
    {
        char acBuffer[4096];
        while (m_strReceived.size() < uCount) {
            pollfd entry{m_nFd, POLLIN, 0};
            if (poll(&entry, 1, 30000) <= 0) {
                break; // a deadline that only ends a failing run
            }
            const ssize_t nRead = recv(m_nFd, acBuffer, sizeof(acBuffer), 0);
            if (nRead <= 0) {
                m_bClosed = true;
                break;
            }
            m_strReceived.append(acBuffer, static_cast<size_t>(nRead));
        }
        return m_strReceived;
    }

    /** Read on until the service closes. @return all bytes */
    const std::string& readToEnd()
    {
        return readUntil(SIZE_MAX);
    }

    bool isClosed() const
    {
        return m_bClosed;
    }

private:
    int m_nFd;
    bool m_bConnected = false;
    bool m_bClosed = false;
    std::string m_strReceived;
};

/** The module up and running. */
class WebCameraServer : public testing::Test
{
protected:
    void SetUp() override
    {
        signal(SIGPIPE, SIG_IGN); // as main does
        FakeSystem::reset();
        ASSERT_EQ(RET_SUCCESS, m_module.init());
        ASSERT_EQ(RET_SUCCESS, m_module.start());
        Peer first; // what the first use opens
        first.send("garbage\r\n\r\n");
        first.readToEnd();                             // the service has closed its end too
        m_uDescriptors = openDescriptors().size() - 1; // without the first peer's
    }
    void TearDown() override
    {
        EXPECT_TRUE(eventually([this] { return m_uDescriptors >= openDescriptors().size(); }));
        EXPECT_EQ(0u, FakeSystem::consumerCount());
        EXPECT_EQ(RET_SUCCESS, m_module.stop());
        EXPECT_EQ(RET_SUCCESS, m_module.uninit());
    }

    CommucationModule& m_module = CommucationModule::getInstance();
    LogCapture m_log;
    size_t m_uDescriptors = 0;
};

const char* const LIVE = "GET /live HTTP/1.1\r\n\r\n";
const size_t LIVE_HEADER_SIZE = 281;

} // namespace

TEST_F(WebCameraServer, ReactorThreadHasItsName)
{
    EXPECT_EQ(1, countThreads("webcamera"));
}

TEST_F(WebCameraServer, ListensOnAllAddresses)
{
    std::ifstream table("/proc/net/tcp");
    const std::string strTable{std::istreambuf_iterator<char>(table),
                               std::istreambuf_iterator<char>()};

    EXPECT_NE(std::string::npos, strTable.find(" 00000000:2089 00000000:0000 0A "));
}

TEST_F(WebCameraServer, ConnectionsHaveTheirBuffers)
{
    const Peer peer;
    ASSERT_TRUE(peer.isConnected());

    EXPECT_TRUE(eventually([] { return hasSocketWithBuffers(8329, 35840); }));
}

TEST_F(WebCameraServer, ClientThatLeavesWithoutARequestIsRemovedWithoutAnAnswer)
{
    {
        Peer peer;
        ASSERT_TRUE(peer.isConnected());
        EXPECT_TRUE(eventually([this] { return openDescriptors().size() == m_uDescriptors + 2; }));
    }
    EXPECT_TRUE(eventually([this] { return openDescriptors().size() == m_uDescriptors; }));
    EXPECT_NE(std::string::npos,
              m_log.text().find("tcp client error, delete from epoll and close !!\n"));

    Peer listener;
    listener.finish();
    EXPECT_EQ("", listener.readToEnd());
    EXPECT_TRUE(listener.isClosed());
}

TEST_F(WebCameraServer, AnyAllocationOfAnAcceptAndARequestMayFail)
{
    CardFolder www("www");
    www.write("f.txt", "x");
    ASSERT_EQ(RET_SUCCESS, m_module.stop()); // its reactor is this thread
    Log::getInstance().setLevel(0);          // m_log allocates, too
    for (const char* pRequest : {"GET /f.txt HTTP/1.1\r\n\r\n", "GET /live?a=1 HTTP/1.1\r\n\r\n",
                                 "GET /snap HTTP/1.1\r\n\r\n", "GET /camera HTTP/1.1\r\n\r\n",
                                 "POST /live HTTP/1.1\r\nContent-Length: 2\r\n\r\nx"}) {
        bool bReached = true;
        for (int nWhich = 1; bReached; ++nWhich) {
            const std::string strRule = ":" + std::to_string(nWhich) + ":ENOMEM";
            const std::string strPlan =
                "malloc" + strRule + ";calloc" + strRule + ";realloc" + strRule;
            const Peer peer;
            peer.send(pRequest);
            FaultScope fault(strPlan.c_str());

            EXPECT_NO_THROW((void)WebCamera::getInstance().pollOnce()) << strPlan;
            const Peer next; // so that the second pass need not wait
            EXPECT_NO_THROW((void)WebCamera::getInstance().pollOnce()) << strPlan;

            bReached = 0 != faultHits();
            ASSERT_LT(nWhich, 1000);
        }
    }
    Log::getInstance().setLevel(8);
    ASSERT_EQ(RET_SUCCESS, m_module.start());

    Peer live;
    live.send(LIVE);
    EXPECT_EQ(LIVE_HEADER_SIZE, live.readUntil(LIVE_HEADER_SIZE).size());
}

TEST_F(WebCameraServer, TwoClientsAreIndependent)
{
    Peer half;
    half.send("POST /camera?focus=1 HTTP/1.1\r\nContent-Length: 4\r\n\r\nab");
    Peer live;
    live.send(LIVE);
    EXPECT_EQ(LIVE_HEADER_SIZE, live.readUntil(LIVE_HEADER_SIZE).size());
    Peer other;
    other.send("GET /camera HTTP/1.1\r\n\r\n");
    EXPECT_NE(std::string::npos, other.readUntil(200).find("\r\n\r\ninvalid request"));

    PVENC_FRAME_T frame = makeFrame(300);
    FakeSystem::deliver(frame);
    const size_t uPart = LIVE_HEADER_SIZE + 26 + 26 + 48 + 2 + 300 + 24;
    EXPECT_EQ(uPart, live.readUntil(uPart).size());

    half.send("cd");
    EXPECT_NE(std::string::npos, half.readUntil(200).find("\r\n\r\n{\"measure\":\"0.0000\"}"));
}

TEST_F(WebCameraServer, RequestOverSeveralReadsIsRoutedWhenComplete)
{
    const std::string strBody(10000, 'b');
    Peer peer;
    peer.send("POST /camera?focus=1 HTTP/1.1\r\nContent-Length: 10000\r\n\r\n" +
              strBody.substr(0, 9999));
    Peer other; // answered later than what came before it
    other.send("GET /camera HTTP/1.1\r\n\r\n");
    other.readUntil(200);
    EXPECT_EQ(0, FakeSystem::measureCount());

    peer.send("b");

    peer.readUntil(200);
    EXPECT_EQ(1, FakeSystem::measureCount());
}

TEST_F(WebCameraServer, OneMegabyteOfHeadersDoesNoHarm)
{
    {
        Peer peer;
        peer.send("GET /live HTTP/1.1\r\nX: " + std::string(1 << 20, 'x'));
        EXPECT_EQ(LIVE_HEADER_SIZE, peer.readUntil(LIVE_HEADER_SIZE).substr(0, 281).size());
    }
    Peer other;
    other.send(LIVE);
    EXPECT_EQ(LIVE_HEADER_SIZE, other.readUntil(LIVE_HEADER_SIZE).size());
}

TEST_F(WebCameraServer, LargeFileReachesASlowClientWhole)
{
    CardFolder www("www");
    const std::string strContent = payload(2000000);
    www.write("large.png", strContent);
    Peer peer(2048);
    peer.send("GET /large.png HTTP/1.1\r\n\r\n");

    const size_t uHead = peer.readUntil(1000).find("\r\n\r\n") + 4;

    EXPECT_TRUE(strContent == peer.readUntil(uHead + strContent.size()).substr(uHead));
}

TEST_F(WebCameraServer, ClientThatHalfClosesGetsACutFile)
{
    CardFolder www("www");
    const std::string strContent = payload(4000000); // more than both sockets hold
    www.write("large.png", strContent);
    Peer peer(2048);
    peer.send("GET /large.png HTTP/1.1\r\n\r\n");
    const size_t uHead = peer.readUntil(1000).find("\r\n\r\n") + 4;

    peer.finish();

    EXPECT_TRUE(eventually([this] { return openDescriptors().size() == m_uDescriptors + 1; }))
        << "the service has closed its end; left is the peer's own";
    const std::string strBody = peer.readToEnd().substr(uHead);
    EXPECT_GT(strContent.size(), strBody.size());
    EXPECT_TRUE(0 == strContent.compare(0, strBody.size(), strBody));
}

TEST_F(WebCameraServer, RefusedFileClosesTheConnection)
{
    Peer peer;
    peer.send("GET /missing.html HTTP/1.1\r\n\r\n");

    EXPECT_EQ("", peer.readToEnd());
    EXPECT_TRUE(peer.isClosed());
}

TEST_F(WebCameraServer, HeaderOfAFileThatCannotBeReadArrivesBeforeTheClose)
{
    CardFolder www("www");
    std::filesystem::create_symlink("/sys/devices/system/cpu/online", www.path() / "f.txt");
    Peer peer;
    peer.send("GET /f.txt HTTP/1.1\r\n\r\n");

    const std::string& strAnswer = peer.readToEnd();
    EXPECT_TRUE(peer.isClosed());
    EXPECT_EQ(0u, strAnswer.find("HTTP/1.0 200 OK\r\n"));
    EXPECT_EQ(strAnswer.size() - 4, strAnswer.find("\r\n\r\n"));
}

TEST_F(WebCameraServer, ClientThatDoesNotReadItsAnswersHoldsNobodyAndIsClosed)
{
    Peer deaf(2048);
    deaf.send("GET /camera?focus=1 HTTP/1.1\r\n\r\n");
    deaf.readUntil(200);
    const uint32_t u32StartMs = monotonicMs32();
    // Every read is answered directly: more answers than both sockets hold.
    std::thread flood([&deaf] {
        for (int i = 0; i < 2000; ++i) {
            deaf.send(std::string(2048, 'x'));
        }
    });
    for (int i = 0; i < 20; ++i) {
        Peer other;
        other.send("GET /camera HTTP/1.1\r\n\r\n");
        EXPECT_NE(std::string::npos, other.readUntil(200).find("\r\n\r\ninvalid request"));
    }
    EXPECT_LT(monotonicMs32() - u32StartMs, 5000U) << "the deaf one's time";
    flood.join();
    EXPECT_TRUE(eventually([this] { return openDescriptors().size() == m_uDescriptors + 1; }))
        << "the deaf one is closed: left is its own descriptor";
    EXPECT_GE(monotonicMs32() - u32StartMs, 5000U);
    EXPECT_LT(FakeSystem::measureCount(), 2000) << "it was closed for not reading";
}

TEST_F(WebCameraServer, ClientThatReadsItsAnswersSlowlyGetsEachOne)
{
    const int ANSWERS = 1000; // of 300 bytes and more: more than both sockets hold
    Peer slow(2048);
    slow.send("GET /camera?focus=1 HTTP/1.1\r\n\r\n");
    const size_t uAnswer = slow.readUntil(200).find("\r\n\r\n") + 4 + 20; // {"measure":"0.0000"}
    std::thread sender([&slow] {
        for (int i = 1; i < ANSWERS; ++i) {
            slow.send(std::string(2048, 'x'));
        }
    });

    size_t uGot = 0;
    while (uGot < 200 * uAnswer) { // for a while in small steps
        uGot = std::min(uGot + 1000, 200 * uAnswer);
        slow.readUntil(uGot);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    // How many bytes a read takes is the kernel's choice: at least one answer for 2,048.
    slow.readUntil(ANSWERS * uAnswer);
    sender.join();

    EXPECT_FALSE(slow.isClosed());
    EXPECT_GE(FakeSystem::measureCount(), ANSWERS);
}

TEST_F(WebCameraServer, ThousandClientsAtRandomMomentsLeaveNothing)
{
    std::atomic<bool> bEnd{false};
    std::thread capture([&bEnd] {
        unsigned uFrame = 0;
        while (!bEnd) {
            PVENC_FRAME_T frame = makeFrame(20000, 28, 640, 480, ++uFrame);
            FakeSystem::deliver(frame);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    std::vector<std::thread> vecClient;
    for (unsigned uClient = 0; uClient < 4; ++uClient) {
        vecClient.emplace_back([uClient] {
            std::mt19937 random(uClient);
            for (int i = 0; i < 250; ++i) {
                Peer peer;
                const unsigned uKind = random() % 6;
                if (uKind > 0) {
                    peer.send((1 == uKind)   ? "GET /snap HTTP/1.1\r\n\r\n"
                              : (2 == uKind) ? "GET /li"
                                             : LIVE);
                }
                if (4 == uKind) {
                    peer.send("more");
                }
                if (uKind > 2) {
                    peer.readUntil(1 + random() % 30000);
                }
            }
        });
    }
    for (std::thread& client : vecClient) {
        client.join();
    }

    Peer survivor;
    survivor.send(LIVE);
    EXPECT_GE(survivor.readUntil(50000).size(), 50000u) << "frames flow on";
    EXPECT_TRUE(eventually([] { return 1 == FakeSystem::consumerCount(); }));
    bEnd = true;
    capture.join();
}

TEST_F(WebCameraServer, FiveHundredAndTwelveClientsStayAndTheNextOneTakesAPlace)
{
    rlimit descriptors{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &descriptors));
    const rlim_t uFormer = descriptors.rlim_cur;
    descriptors.rlim_cur = std::max<rlim_t>(uFormer, 2000);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &descriptors));
    {
        std::vector<std::unique_ptr<Peer>> vecPeer;
        for (int i = 0; i < 512; ++i) {
            vecPeer.push_back(std::make_unique<Peer>());
            ASSERT_TRUE(vecPeer.back()->isConnected()) << i;
            sleepFor(Time(0, (0 == i) ? 50000 : 0)); // the first one's moment is its own
        }
        const size_t uAll = m_uDescriptors + 2 * 512;
        EXPECT_TRUE(eventually([uAll] { return uAll == openDescriptors().size(); }));

        Peer next;
        next.send("GET /camera HTTP/1.1\r\n\r\n");

        EXPECT_EQ("HTTP/1.1 200 OK", next.readUntil(15).substr(0, 15));
        EXPECT_EQ("", vecPeer.front()->readToEnd()) << "it was silent longest";
        EXPECT_TRUE(vecPeer.front()->isClosed());
        EXPECT_EQ(uAll + 1, openDescriptors().size()) << "nobody else was closed";
    }
    descriptors.rlim_cur = uFormer;
    EXPECT_TRUE(eventually([this] { return m_uDescriptors == openDescriptors().size(); }));
    EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &descriptors));
}

TEST_F(WebCameraServer, ConnectionsStayOpenWhileTheServerIsStopped)
{
    Peer live;
    live.send(LIVE);
    EXPECT_EQ(LIVE_HEADER_SIZE, live.readUntil(LIVE_HEADER_SIZE).size());

    EXPECT_EQ(RET_SUCCESS, m_module.stop());
    EXPECT_FALSE(live.isClosed());
    EXPECT_EQ(1u, FakeSystem::consumerCount());
    EXPECT_EQ(RET_SUCCESS, m_module.start());

    PVENC_FRAME_T frame = makeFrame(300);
    FakeSystem::deliver(frame);
    EXPECT_GT(live.readUntil(LIVE_HEADER_SIZE + 300).size(), LIVE_HEADER_SIZE);
}
