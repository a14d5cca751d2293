// The server with slow clients and with many.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include "CardFolder.h"
#include "Descriptors.h"
#include "Eventually.h"
#include "FakeSystem.h"
#include "Time.h"
#include "WebCameraFixture.h"

namespace {

using WebCameraCrowd = WebCameraFixture;

} // namespace

TEST_F(WebCameraCrowd, LargeFileReachesASlowClientWhole)
{
    CardFolder www("www");
    const std::string strContent = payload(2000000);
    www.write("large.png", strContent);
    Peer peer(2048);
    peer.send("GET /large.png HTTP/1.1\r\n\r\n");

    const size_t uHead = peer.readUntil(1000).find("\r\n\r\n") + 4;

    EXPECT_TRUE(strContent == peer.readUntil(uHead + strContent.size()).substr(uHead));
}

TEST_F(WebCameraCrowd, ClientThatDoesNotReadItsAnswersHoldsNobodyAndIsClosed)
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

TEST_F(WebCameraCrowd, ClientThatReadsItsAnswersSlowlyGetsEachOne)
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

TEST_F(WebCameraCrowd, ThousandClientsAtRandomMomentsLeaveNothing)
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

TEST_F(WebCameraCrowd, FiveHundredAndTwelveClientsStayAndTheNextOneTakesAPlace)
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
