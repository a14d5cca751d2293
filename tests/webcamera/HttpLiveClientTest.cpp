// The bytes of a live stream, and what a slow client gets of it.
#include "HttpLiveClient.h"

#include <ctime>
#include <typeinfo>

#include <gtest/gtest.h>

#include "Connection.h"
#include "FakeSystem.h"
#include "Fault.h"
#include "LogCapture.h"
#include "Mask.h"
#include "VideoFrameEvent.h"

namespace {

const char* const REQUEST = "GET /live HTTP/1.1\r\n\r\n";
const char* const TRAILER = "\r\n--boundarydonotcross\r\n";

/** A responder whose header has already been received. */
class HttpLiveClientStream : public testing::Test
{
protected:
    void SetUp() override
    {
        FakeSystem::reset();
        start(m_connection);
    }

    static void start(Connection& connection)
    {
        ASSERT_EQ(0, connection.request(REQUEST));
        ASSERT_EQ(281u, connection.receiveAll().size());
    }

    LogCapture m_log;
    Connection m_connection;
};

} // namespace

TEST_F(HttpLiveClientStream, HeaderIsTheGoldenText)
{
    Connection connection;
    EXPECT_EQ(0, connection.request(REQUEST));

    const std::string strGolden =
        "HTTP/1.0 200 OK\r\n"
        "Connection: close\r\n"
        "Server: MJPG-Streamer/0.2\r\n"
        "Cache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\n"
        "Pragma: no-cache\r\n"
        "Expires: Mon, 3 Jan 2000 12:34:56 GMT\r\n"
        "Content-Type: multipart/x-mixed-replace;boundary=boundarydonotcross\r\n"
        "\r\n";
    EXPECT_EQ(281u, strGolden.size());
    EXPECT_EQ(strGolden, connection.receive());
}

TEST_F(HttpLiveClientStream, DeliberateFirstFrameFollowsNoBoundary)
{
    PVENC_FRAME_T frame = makeFrame(1234);

    const time_t before = preciseSeconds();
    FakeSystem::deliver(frame);
    const time_t after = preciseSeconds();

    const std::string strPart = m_connection.receive();
    const size_t uHead = strPart.find("\r\n\r\n") + 4;
    std::string strHead = strPart.substr(0, uHead);
    const long lSeconds = maskNumber(strHead, "X-Timestamp: ", ".");
    const long lMicroseconds = maskNumber(strHead, ".", "\r\n");
    EXPECT_EQ("Content-Type: image/jpeg\r\n"
              "Content-Length:     1234\r\n"
              "X-Timestamp: ################.################\r\n"
              "\r\n",
              strHead);
    EXPECT_GE(lSeconds, before);
    EXPECT_LE(lSeconds, after);
    EXPECT_GE(lMicroseconds, 0);
    EXPECT_LT(lMicroseconds, 1000000);
    EXPECT_EQ(payload(1234) + TRAILER, strPart.substr(uHead));
}

TEST_F(HttpLiveClientStream, HeaderPrecedesAFrameThatIsThereAtOnce)
{
    FakeSystem::deliverAtOnce(makeFrame(300));
    Connection connection;
    ASSERT_EQ(0, connection.request(REQUEST));

    const std::string strStream = connection.receiveAll();

    EXPECT_EQ(0U, strStream.find("HTTP/1.0 200 OK\r\n"));
    EXPECT_EQ(281U, strStream.find("Content-Type: image/jpeg\r\n"));
}

TEST_F(HttpLiveClientStream, EveryFrameFollowsTheBoundaryOfTheOneBefore)
{
    for (unsigned i = 0; i < 3; ++i) {
        PVENC_FRAME_T frame = makeFrame(300, 28, 640, 480, i);
        FakeSystem::deliver(frame);
    }

    const std::string strStream = m_connection.receive();
    size_t uPos = 0;
    for (unsigned i = 0; i < 3; ++i) {
        const size_t uHead = strStream.find("\r\n\r\n", uPos) + 4;
        EXPECT_EQ("Content-Type: image/jpeg\r\nContent-Length:      300\r\nX-Timestamp: ",
                  strStream.substr(uPos, 65));
        EXPECT_EQ(payload(300, i) + TRAILER, strStream.substr(uHead, 300 + 24));
        uPos = uHead + 300 + 24;
    }
    EXPECT_EQ(uPos, strStream.size());
}

TEST_F(HttpLiveClientStream, FrameIsSharedNotCopied)
{
    Connection slow(2048);
    start(slow);
    PVENC_FRAME_T frame = makeFrame(100000);
    VENC_FRAME_T* pFrame = frame.get();
    FakeSystem::deliver(frame);
    frame = PVENC_FRAME_T();

    pFrame->au8Data[99999] = 'Z'; // still there, and what will be sent

    const std::string strStream = slow.receiveAll();
    ASSERT_GE(strStream.size(), 100024u);
    EXPECT_EQ(std::string("Z") + TRAILER, strStream.substr(strStream.size() - 25));
}

TEST_F(HttpLiveClientStream, SlowClientGetsWholeFramesOnly)
{
    Connection slow(2048);
    start(slow);
    std::string strStream;
    int nMostWaiting = 0;
    for (unsigned i = 0; i < 50; ++i) {
        PVENC_FRAME_T frame = makeFrame(20000, 28, 640, 480, i);
        FakeSystem::deliver(frame);
        nMostWaiting = std::max(nMostWaiting, slow.client().getQueueLength());
        strStream += slow.receive(3000);
        EXPECT_EQ(0, slow.writeOn());
    }
    strStream += slow.receiveAll();
    EXPECT_LE(nMostWaiting, 4) << "one waits, and the three of a frame";

    size_t uPos = 0;
    unsigned uLast = 0;
    int nFrames = 0;
    while (uPos < strStream.size()) {
        ASSERT_EQ("Content-Type: image/jpeg\r\nContent-Length:    20000\r\nX-Timestamp: ",
                  strStream.substr(uPos, 65));
        const size_t uBody = strStream.find("\r\n\r\n", uPos) + 4;
        ASSERT_LE(uBody + 20024, strStream.size());
        const auto uFirst = static_cast<unsigned char>(strStream[uBody]);
        EXPECT_TRUE(0 == nFrames || uFirst > uLast) << "in order";
        uLast = uFirst;
        ASSERT_EQ(payload(20000, uFirst) + TRAILER, strStream.substr(uBody, 20024));
        uPos = uBody + 20024;
        ++nFrames;
    }
    EXPECT_GT(nFrames, 2);
    EXPECT_LT(nFrames, 50);
}

TEST_F(HttpLiveClientStream, OneWaitingItemDoesNotDropAFrameAndTwoDo)
{
    Connection slow(2048);
    start(slow);
    PVENC_FRAME_T frame = makeFrame(50000);
    FakeSystem::deliver(frame); // being sent
    ASSERT_EQ(0, slow.client().getQueueLength());
    slow.client().send(makeFrame(1).castTo<char>(), 1);
    ASSERT_EQ(1, slow.client().getQueueLength());

    FakeSystem::deliver(frame);
    EXPECT_EQ(4, slow.client().getQueueLength());
    FakeSystem::deliver(frame);
    EXPECT_EQ(4, slow.client().getQueueLength());
}

TEST_F(HttpLiveClientStream, OtherFrameTypeHasAnEmptyHeader)
{
    for (const uint32_t u32Format : {0u, 5u, 13u, 27u, 29u, 0xffffffffu}) {
        m_log.clear();
        PVENC_FRAME_T frame = makeFrame(200, u32Format);
        FakeSystem::deliver(frame);

        EXPECT_EQ(payload(200) + TRAILER, m_connection.receive()) << u32Format;
        EXPECT_EQ("[debug] [webcamera/HttpLiveClient ] [constructFrameHeadEntry] "
                  "unsport frame type !\n",
                  m_log.text());
    }
}

TEST_F(HttpLiveClientStream, EmptyHeaderWaitsAsAnItemOfItsOwn)
{
    Connection slow(2048);
    start(slow);
    PVENC_FRAME_T large = makeFrame(50000);
    FakeSystem::deliver(large);
    PVENC_FRAME_T other = makeFrame(200, 13);
    FakeSystem::deliver(other);

    EXPECT_EQ(3, slow.client().getQueueLength());
}

TEST_F(HttpLiveClientStream, PlainFrameIsAsLargeAsItsPicture)
{
    PVENC_FRAME_T frame = makeFrame(200, 10, 10, 7);

    FakeSystem::deliver(frame);

    EXPECT_EQ(payload(70) + TRAILER, m_connection.receive());
    EXPECT_EQ(200u, frame.get()->u32Size) << "other threads may be reading it";
}

TEST_F(HttpLiveClientStream, PlainFrameIsNeverSentBeyondItsBlock)
{
    PVENC_FRAME_T frame = makeFrame(200, 10, 640, 480);

    FakeSystem::deliver(frame);

    EXPECT_EQ(payload(200) + TRAILER, m_connection.receive());
}

TEST_F(HttpLiveClientStream, LengthOfEightDigitsFillsItsField)
{
    PVENC_FRAME_T frame = makeFrame(10000000);

    FakeSystem::deliver(frame);

    EXPECT_EQ("Content-Type: image/jpeg\r\nContent-Length: 10000000\r\nX-Timestamp: ",
              m_connection.receive(65));
}

TEST_F(HttpLiveClientStream, StoppedResponderIsNotReached)
{
    EXPECT_EQ(0, m_connection.client().stop());
    EXPECT_EQ(0, m_connection.client().stop());
    PVENC_FRAME_T frame = makeFrame(200);
    FakeSystem::deliver(frame);

    EXPECT_EQ("", m_connection.receive());
    EXPECT_EQ(0, m_connection.client().getQueueLength());
}

TEST_F(HttpLiveClientStream, StreamIsAsTheCallerSays)
{
    FakeSystem::reset();
    HttpLiveClient responder(m_connection.client(), 1);

    EXPECT_EQ(0, responder.start());

    EXPECT_EQ("1 ", FakeSystem::streams());
    EXPECT_EQ(0, responder.stop());
}

TEST_F(HttpLiveClientStream, StopReturnsSuccess)
{
    HttpLiveClient responder(m_connection.client(), 0);

    EXPECT_EQ(0, responder.start());
    EXPECT_EQ(0, responder.stop());
}

TEST_F(HttpLiveClientStream, OtherEventIsABadCast)
{
    HttpLiveClient live(m_connection.client(), 0);
    Event other;

    EXPECT_THROW((void)live.onLiveFrameEvent(&other), std::bad_cast);
}

TEST_F(HttpLiveClientStream, FrameBeyondTheClientsMemoryEndsTheConnection)
{
    PVENC_FRAME_T frame = makeFrame(100000000);
    (void)m_connection.receive();

    FakeSystem::deliver(frame);

    EXPECT_EQ("", m_connection.receive());
    EXPECT_EQ(1, m_connection.read()) << "the reactor hears of it";
}

TEST_F(HttpLiveClientStream, PartEntersTheQueueWholeOrNotAtAll)
{
    // Where the allocations are is not the test's business: each of them fails once.
    for (int nWhich = 1; nWhich < 20; ++nWhich) {
        Connection connection;
        start(connection);
        (void)connection.receive();
        PVENC_FRAME_T frame = makeFrame(300);
        {
            FaultScope fault(("malloc:" + std::to_string(nWhich) + ":ENOMEM").c_str());
            FakeSystem::deliver(frame);
            if (0 == faultHits()) {
                EXPECT_GT(nWhich, 3) << "header, its handle, and three places in the queue";
                return;
            }
        }
        const std::string strGot = connection.receive(); // or the fixture's connection went without
        EXPECT_TRUE(strGot.empty() || 26u + 26 + 48 + 2 + 300 + 24 == strGot.size()) << nWhich;

        FakeSystem::deliver(frame);
        EXPECT_EQ(26u + 26 + 48 + 2 + 300 + 24, connection.receive().size()) << nWhich;
    }
}

TEST_F(HttpLiveClientStream, StartFailsWithoutMemory)
{
    for (const char* pPlan : {"calloc=1024:1:ENOMEM", "calloc=256:1:ENOMEM"}) {
        HttpLiveClient live(m_connection.client(), 0);
        FaultScope fault(pPlan);
        EXPECT_EQ(1, live.start()) << pPlan;
        EXPECT_EQ(1u, faultHits()) << pPlan;
    }
    EXPECT_EQ("", m_connection.receive());
}

TEST_F(HttpLiveClientStream, FrameTakesNoMemoryForItsBoundary)
{
    PVENC_FRAME_T frame = makeFrame(200);
    FaultScope fault("calloc=256:1-:ENOMEM");

    FakeSystem::deliver(frame);

    EXPECT_EQ(0u, faultHits());
    EXPECT_NE(std::string::npos, m_connection.receive().find(TRAILER));
}

TEST_F(HttpLiveClientStream, FrameIsDroppedWholeWithoutMemory)
{
    PVENC_FRAME_T frame = makeFrame(200);
    {
        FaultScope fault("malloc=1024:1:ENOMEM");
        FakeSystem::deliver(frame);
        EXPECT_EQ(1u, faultHits());
    }
    EXPECT_EQ("", m_connection.receive());
    FakeSystem::deliver(frame);
    EXPECT_NE("", m_connection.receive());
}
