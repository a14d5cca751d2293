// The server with real clients: connections come, are independent, and leave nothing behind.
#include "WebCamera.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "CardFolder.h"
#include "Descriptors.h"
#include "Eventually.h"
#include "FakeSystem.h"
#include "Fault.h"
#include "Threads.h"
#include "WebCameraFixture.h"

namespace {

using WebCameraServer = WebCameraFixture;

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
