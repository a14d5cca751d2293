// What a connection does with each request, and with what comes behind it.
#include "WebCameraClient.h"

#include <cstring>
#include <limits>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Connection.h"
#include "Eventually.h"
#include "FakeSystem.h"
#include "Fault.h"
#include "LogCapture.h"
#include "SafePointer.h"
#include "Time.h"
#include "WebCameraClientFixture.h"

namespace {

const char* const LIVE_HEADER =
    "HTTP/1.0 200 OK\r\nConnection: close\r\nServer: MJPG-Streamer/0.2\r\nCache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\nPragma: no-cache\r\nExpires: Mon, 3 Jan 2000 12:34:56 GMT\r\nContent-Type: multipart/x-mixed-replace;boundary=boundarydonotcross\r\n\r\n";

std::string textAnswer(const std::string& strText)
{
    return "HTTP/1.1 200 OK\r\nConnection: close\r\nServer: MJPG-Streamer/0.2\r\nCache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\nPragma: no-cache\r\nExpires: Mon, 3 Jan 2000 12:34:56 GMT\r\nContent-type: text/plain\r\nContent-Length: " +
           std::to_string(strText.size()) + "\r\n\r\n" + strText;
}

using WebCameraClientConnection = WebCameraClientFixture;

} // namespace

TEST_F(WebCameraClientConnection, LiveIsAnsweredWithTheStream)
{
    EXPECT_EQ(0, m_connection.request("GET /live HTTP/1.1\r\n\r\n"));

    EXPECT_EQ(LIVE_HEADER, m_connection.receive());
    EXPECT_EQ("0 ", FakeSystem::streams());
}

TEST_F(WebCameraClientConnection, RequestWithoutMemoryForItsTextsEndsTheConnection)
{
    const std::string strLong(1500, 'x');
    const std::string aRequest[] = {
        "GET /" + strLong + " HTTP/1.1\r\n\r\n",
        "GET /live?" + strLong + "=1 HTTP/1.1\r\n\r\n",
        "GET /live?a=" + strLong + " HTTP/1.1\r\n\r\n",
        "GET /live HTTP/1.1\r\nContent-Type: " + strLong + "\r\n\r\n",
    };
    for (const std::string& strRequest : aRequest) {
        Connection connection;
        FaultScope fault("malloc>=1400:1-:ENOMEM");

        EXPECT_EQ(1, connection.request(strRequest)) << strRequest;

        EXPECT_GE(faultHits(), 1u) << strRequest;
        EXPECT_EQ("", FakeSystem::streams());
    }
}

TEST_F(WebCameraClientConnection, WithoutMemoryForItsBufferItDoesNotStart)
{
    for (const size_t uBlock : {size_t{2048}, sizeof(SafePointerBlock)}) {
        const std::string strPlan = "malloc=" + std::to_string(uBlock) + ":1:ENOMEM";
        WebCameraClient client;
        const FaultScope fault(strPlan.c_str());

        EXPECT_EQ(1, client.init()) << strPlan;

        EXPECT_EQ(1U, faultHits()) << strPlan;
    }
    WebCameraClient client;
    EXPECT_EQ(0, client.init());
}

TEST_F(WebCameraClientConnection, ThatWasGivenUpDoesNotStart)
{
    WebCameraClient client;
    EXPECT_FALSE(client.take(UINT32_MAX)); // more than all clients may have

    EXPECT_EQ(1, client.init());
}

TEST_F(WebCameraClientConnection, DeliberateAnyStreamIsStream0)
{
    for (const char* pQuery :
         {"stream=3", "stream=-1", "stream=x", "stream=", "stream=99999999999"}) {
        Connection connection;
        EXPECT_EQ(0, connection.request(std::string("GET /live?") + pQuery + " HTTP/1.1\r\n\r\n"));
        EXPECT_EQ("0 ", FakeSystem::streams()) << pQuery;
    }
    m_log.clear();
    EXPECT_EQ(0, m_connection.request("GET /snap?stream=3 HTTP/1.1\r\n\r\n"));
    EXPECT_EQ("0 ", FakeSystem::streams());
    EXPECT_EQ("[debug] [webcamera/WebCameraHttpDataProcessor ] [doRequestSnap] "
              "s32StreamIdx:0 s8FileName:photo.jpg\n",
              m_log.text());
}

TEST_F(WebCameraClientConnection, MethodIsNotLookedAt)
{
    for (const char* pMethod : {"HEAD", "POST", "DELETE", "M-SEARCH"}) {
        Connection connection;
        EXPECT_EQ(0, connection.request(std::string(pMethod) + " /live HTTP/1.1\r\n\r\n"));
        EXPECT_EQ(LIVE_HEADER, connection.receive()) << pMethod;
    }
}

TEST_F(WebCameraClientConnection, PathsAreComparedWithCaseAndWhole)
{
    for (const char* pPath :
         {"/LIVE", "/Live", "/live/", "/lives", "/snap/", "/CAMERA", "/", "*"}) {
        Connection connection;
        const CallJournal journal("access");
        EXPECT_EQ(1, connection.request(std::string("OPTIONS ") + pPath + " HTTP/1.1\r\n\r\n"))
            << pPath << " is the path of a file that is not there";
        EXPECT_EQ("", connection.receive()) << pPath;
        EXPECT_EQ(1u,
                  CallJournal::count(
                      std::string("access /tmp/run/mountd/mmcblk0p1/kestrel-server/www") + pPath))
            << pPath << " is looked for";
    }
    EXPECT_EQ(0u, FakeSystem::consumerCount());
}

TEST_F(WebCameraClientConnection, SnapLogsItsFileName)
{
    m_log.clear();
    EXPECT_EQ(0, m_connection.request("GET /snap?filename=a.jpg&mode=correction HTTP/1.1\r\n\r\n"));

    EXPECT_EQ("[debug] [webcamera/WebCameraHttpDataProcessor ] [doRequestSnap] "
              "s32StreamIdx:0 s8FileName:a.jpg\n",
              m_log.text());
    EXPECT_EQ("", m_connection.receive()) << "answered with the next frame";
    EXPECT_EQ("0 ", FakeSystem::streams());
}

TEST_F(WebCameraClientConnection, EmptyFileNameIsPhoto)
{
    m_log.clear();
    EXPECT_EQ(0, m_connection.request("GET /snap?filename= HTTP/1.1\r\n\r\n"));

    EXPECT_NE(std::string::npos, m_log.text().find(" s8FileName:photo.jpg\n"));
}

TEST_F(WebCameraClientConnection, CameraWithFocusMeasures)
{
    FakeSystem::setMeasure(12.34567F);

    EXPECT_EQ(0, m_connection.request("GET /camera?focus=1 HTTP/1.1\r\n\r\n"));

    EXPECT_EQ(textAnswer("{\"measure\":\"12.3457\"}"), m_connection.receive());
    EXPECT_EQ(1, FakeSystem::measureCount());
    EXPECT_EQ(0u, FakeSystem::consumerCount());
}

TEST_F(WebCameraClientConnection, FailedMeasureAnswersWhatItLeft)
{
    EXPECT_EQ(0, m_connection.request("GET /camera?focus=no HTTP/1.1\r\n\r\n"));

    EXPECT_EQ(textAnswer("{\"measure\":\"0.0000\"}"), m_connection.receive());
}

TEST_F(WebCameraClientConnection, LongestMeasureFits)
{
    FakeSystem::setMeasure(std::numeric_limits<float>::lowest());

    EXPECT_EQ(0, m_connection.request("GET /camera?focus=1 HTTP/1.1\r\n\r\n"));

    EXPECT_EQ(textAnswer("{\"measure\":\"-340282346638528859811704183484516925440.0000\"}"),
              m_connection.receive());
}

TEST_F(WebCameraClientConnection, DeliberateCameraWithoutFocusIsAnInvalidRequestAnswered200)
{
    for (const char* pTarget : {"/camera", "/camera?focus", "/camera?focus=", "/camera?Focus=1"}) {
        Connection connection;
        EXPECT_EQ(0, connection.request(std::string("GET ") + pTarget + " HTTP/1.1\r\n\r\n"));
        EXPECT_EQ(textAnswer("invalid request"), connection.receive()) << pTarget;
    }
    EXPECT_EQ(0, FakeSystem::measureCount());
}

TEST_F(WebCameraClientConnection, DeliberateFurtherBytesRouteTheSamePathAgain)
{
    EXPECT_EQ(0, m_connection.request("GET /camera?focus=1 HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(0, m_connection.request("GET /live HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(0, m_connection.request("x"));

    const std::string strAnswer = textAnswer("{\"measure\":\"0.0000\"}");
    EXPECT_EQ(strAnswer + strAnswer + strAnswer, m_connection.receive());
    EXPECT_EQ(3, FakeSystem::measureCount());
}

TEST_F(WebCameraClientConnection, DeliberateFurtherBytesAddALiveResponderAndAllEndWithTheConnection)
{
    EXPECT_EQ(0, m_connection.request("GET /live HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(0, m_connection.request("more"));
    EXPECT_EQ(0, m_connection.request("\r\n"));

    EXPECT_EQ(std::string(LIVE_HEADER) + LIVE_HEADER + LIVE_HEADER, m_connection.receive());
    EXPECT_EQ("0 0 0 ", FakeSystem::streams());
    EXPECT_EQ(0, m_connection.client().stop());
    EXPECT_EQ(0u, FakeSystem::consumerCount()) << "before any destructor";
    PVENC_FRAME_T frame = makeFrame(300);
    FakeSystem::deliver(frame);
    EXPECT_EQ("", m_connection.receive());
}

TEST_F(WebCameraClientConnection, DeliberateNothingToReadIsNoChunk)
{
    EXPECT_EQ(0, m_connection.read());
    EXPECT_EQ(0, m_connection.request("GET /live HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(0, m_connection.read());

    EXPECT_EQ(LIVE_HEADER, m_connection.receive());
    EXPECT_EQ(1u, FakeSystem::consumerCount());
}

TEST_F(WebCameraClientConnection, IncompleteBodyIsNotRouted)
{
    EXPECT_EQ(0, m_connection.request("POST /live HTTP/1.1\r\nContent-Length: 10\r\n\r\n"));
    EXPECT_EQ(0, m_connection.request("12345"));
    EXPECT_EQ("", m_connection.receive());
    EXPECT_EQ(0, m_connection.request("67890"));

    EXPECT_EQ(LIVE_HEADER, m_connection.receive());
    EXPECT_EQ(1u, FakeSystem::consumerCount());
}

TEST_F(WebCameraClientConnection, EachCutOfALiveRequest)
{
    const std::string strRequest = "GET /live?stream=1 HTTP/1.1\r\nHost: board\r\n\r\n";
    for (size_t uCut = 1; uCut < strRequest.size(); ++uCut) {
        Connection connection;
        const int nFirst = connection.request(strRequest.substr(0, uCut));
        if (uCut < strlen("GET /live")) {
            EXPECT_EQ(1, nFirst) << uCut << ": no URL, or the path of a file";
            EXPECT_EQ("", connection.receive()) << uCut;
            continue;
        }
        EXPECT_EQ(0, nFirst) << uCut;
        EXPECT_EQ(LIVE_HEADER, connection.receive()) << uCut;
        EXPECT_EQ(0, connection.request(strRequest.substr(uCut))) << uCut;
        EXPECT_EQ(LIVE_HEADER, connection.receive()) << uCut;
        EXPECT_EQ("0 0 ", FakeSystem::streams()) << uCut;
    }
}

TEST_F(WebCameraClientConnection, EachCutOfARequestWithBody)
{
    const std::string strRequest =
        "POST /camera?focus=1 HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello";
    const std::string strMeasure = textAnswer("{\"measure\":\"0.0000\"}");
    const std::string strInvalid = textAnswer("invalid request");
    for (size_t uCut = 1; uCut < strRequest.size(); ++uCut) {
        Connection connection;
        const int nFirst = connection.request(strRequest.substr(0, uCut));
        if (uCut < strlen("POST /camera")) {
            EXPECT_EQ(1, nFirst) << uCut;
            continue;
        }
        EXPECT_EQ(0, nFirst) << uCut;
        EXPECT_EQ(0, connection.request(strRequest.substr(uCut))) << uCut;
        const std::string& strOne =
            (uCut < strlen("POST /camera?focus=1")) ? strInvalid : strMeasure;
        // Without the header's value in the first chunk nothing is waited for.
        const bool bLengthSeen = uCut > strRequest.find("5\r\n");
        EXPECT_EQ(bLengthSeen ? strOne : strOne + strOne, connection.receive()) << uCut;
    }
}

TEST_F(WebCameraClientConnection, MalformedRequestsCloseWithoutAnAnswer)
{
    for (const char* pRequest :
         {"\r\n", "garbage\r\n\r\n", "GET\r\n\r\n", "GET / HTTP/9.x\r\n\r\n", "\x16\x03\x01",
          "POST /live HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
          "POST /live HTTP/1.1\r\nContent-Length: 5\r\nContent-Length: 6\r\n\r\n",
          "GET http://board HTTP/1.1\r\n\r\n", "CONNECT board:80 HTTP/1.1\r\n\r\n"}) {
        Connection connection;
        EXPECT_EQ(1, connection.request(pRequest)) << pRequest;
        EXPECT_EQ("", connection.receive()) << pRequest;
    }
    EXPECT_EQ(0u, FakeSystem::consumerCount());
}

TEST_F(WebCameraClientConnection, HeadersLargerThanAReadRouteForEachRead)
{
    const std::string strRequest =
        "GET /live HTTP/1.1\r\nX: " + std::string(5000, 'x') + "\r\n\r\n";
    EXPECT_EQ(0, m_connection.request(strRequest));
    EXPECT_EQ(0, m_connection.read());
    EXPECT_EQ(0, m_connection.read());
    EXPECT_EQ(0, m_connection.read());

    EXPECT_EQ(3u, FakeSystem::consumerCount()) << "2048 + 2048 + 929 bytes";
}

TEST_F(WebCameraClientConnection, ReadTakes2048Bytes)
{
    const std::string strStart = "GET /live HTTP/1.1\r\nX: ";
    const std::string strEnd = "\r\n\r\n";
    for (const size_t uSize : {2048u, 2049u}) {
        Connection connection;
        const std::string strFill(uSize - strStart.size() - strEnd.size(), 'x');
        EXPECT_EQ(0, connection.request(strStart + strFill + strEnd));
        EXPECT_EQ(0, connection.read());

        EXPECT_EQ((2048 == uSize) ? 1u : 2u, FakeSystem::consumerCount());
    }
}

TEST_F(WebCameraClientConnection, PeerThatClosesFailsTheRead)
{
    m_connection.closePeer();

    EXPECT_EQ(1, m_connection.read());
}

TEST_F(WebCameraClientConnection, ConnectionWithoutASocketFailsTheRead)
{
    WebCameraClient client;
    ASSERT_EQ(0, client.init());
    int nFd = -1;
    TcpClient* pClient = &client;
    EPollEvent event(1, &nFd, &pClient);

    EXPECT_EQ(1, client.onRead(event));
    EXPECT_EQ(1, client.write("x", 1));
}

TEST_F(WebCameraClientConnection, BindsEightKiBAndForEachResponderEightMore)
{
    const uint32_t u32Before = ClientMemory::getInstance().getBytes();
    {
        Connection connection;
        EXPECT_EQ(u32Before + 8192, ClientMemory::getInstance().getBytes());
        EXPECT_EQ(0, connection.request("GET /live HTTP/1.1\r\n\r\n"));
        EXPECT_EQ(u32Before + 2 * 8192 + 5, ClientMemory::getInstance().getBytes()) << "the path";
        EXPECT_EQ(0, connection.request("x"));
        EXPECT_EQ(u32Before + 3 * 8192 + 5, ClientMemory::getInstance().getBytes());
    }
    EXPECT_EQ(u32Before, ClientMemory::getInstance().getBytes());
}

TEST_F(WebCameraClientConnection, LongestSilentIsSparedFirstAndOneWithoutARequestBeforeThat)
{
    const uint32_t u32HalfOfAll = UINT32_MAX / 2;
    const uint32_t u32StartMs = monotonicMs32();
    Connection connection;
    const uint32_t u32BegunMs = monotonicMs32();
    const uint32_t u32MostMs = u32BegunMs - u32StartMs; // what the machine took

    const uint32_t u32Waiting = connection.client().getIdleRank(u32BegunMs + 1000);
    EXPECT_LE(1 + 1000 + u32HalfOfAll, u32Waiting);
    EXPECT_GE(1 + 1000 + u32HalfOfAll + u32MostMs, u32Waiting);
    EXPECT_EQ(UINT32_MAX - 1, connection.client().getIdleRank(u32BegunMs + 0x80000000U))
        << "never 0, however long it was silent";

    // So that the moments differ.
    EXPECT_TRUE(eventually([=] { return monotonicMs32() - u32BegunMs >= 20; }));
    const uint32_t u32AskedMs = monotonicMs32();
    EXPECT_EQ(0, connection.request("GET /camera HTTP/1.1\r\n\r\n"));
    const uint32_t u32AnsweredMs = monotonicMs32();
    const uint32_t u32Answered = connection.client().getIdleRank(u32AnsweredMs + 1000);
    EXPECT_LE(1U + 1000U, u32Answered);
    EXPECT_GE(1 + 1000 + u32AnsweredMs - u32AskedMs, u32Answered);
    EXPECT_EQ(u32HalfOfAll, connection.client().getIdleRank(u32AnsweredMs + 0x80000000U));
}

TEST_F(WebCameraClientConnection, ThatIsBeingAnsweredIsNotSpared)
{
    Connection connection(4096);
    EXPECT_EQ(0, connection.client().write(std::string(1000000, 'x').c_str(), 1000000));
    EXPECT_EQ(0, m_connection.request("GET /live HTTP/1.1\r\n\r\n"));

    EXPECT_EQ(0U, connection.client().getIdleRank(monotonicMs32() + 1000));
    EXPECT_EQ(0U, m_connection.client().getIdleRank(monotonicMs32() + 1000));
}
