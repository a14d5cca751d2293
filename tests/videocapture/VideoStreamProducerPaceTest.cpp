// How long the capture thread waits for frames and pauses: after each, and for a lost camera.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "FrameConsumer.h"
#include "LogCapture.h"
#include "VideoStreamProducer.h"
#include "VirtualCamera.h"

namespace {

using Lines = std::vector<std::string>;

const char* const WAIT = "poll 1000"; // for a frame
const char* const SECOND = "select 1.000000";

class VideoStreamProducerPace : public testing::Test
{
protected:
    ~VideoStreamProducerPace() override
    {
        EXPECT_EQ(RET_SUCCESS, m_producer.stop());
    }

    void start(int32_t s32Stream)
    {
        ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
        ASSERT_EQ(RET_SUCCESS, m_producer.init(s32Stream));
        ASSERT_EQ(RET_SUCCESS, m_producer.start());
    }

    /** The capture thread's waits and pauses so far, without the virtual driver's own looks. */
    static Lines waits(const char* pThread = "videocapture0")
    {
        Lines vecLine = CallJournal::lines(pThread);
        vecLine.erase(std::remove(vecLine.begin(), vecLine.end(), "poll 0"), vecLine.end());
        return vecLine;
    }

    /** The first of them from the one that a frame ended: on a busy machine it may be late. */
    static Lines waitsFromFrame(size_t uMost)
    {
        Lines vecLine = waits();
        while (vecLine.size() >= 2 && WAIT == vecLine[0] && "select 0.020000" == vecLine[1]) {
            vecLine.erase(vecLine.begin(), vecLine.begin() + 2);
        }
        vecLine.resize(std::min(uMost, vecLine.size()));
        return vecLine;
    }

    /** The first of them. */
    static Lines firstWaits(size_t uMost, const char* pThread = "videocapture0")
    {
        Lines vecLine = waits(pThread);
        vecLine.resize(std::min(uMost, vecLine.size()));
        return vecLine;
    }

    // The consumer outlives the producer, which is stopped before it goes.
    VirtualCamera m_camera;
    LogCapture m_log;
    FrameConsumer m_consumer;
    VideoStreamProducer m_producer;
    CallJournal m_journal{"poll select"};
};

} // namespace

TEST_F(VideoStreamProducerPace, FrameOfStreamZeroIsFollowedByTenMilliseconds)
{
    start(0);
    ASSERT_TRUE(m_consumer.waitForMore(3));

    const char* const pPause = "select 0.010000";
    EXPECT_EQ((Lines{WAIT, pPause, WAIT, pPause, WAIT}), waitsFromFrame(5));
}

TEST_F(VideoStreamProducerPace, FrameIsDeliveredBeforeThePause)
{
    Lines vecLast; // capture thread, then this one
    m_consumer.m_onFrame = [&](VideoFrameEvent&) { vecLast.push_back(waits().back()); };

    start(0);
    ASSERT_TRUE(m_consumer.waitForMore(3));
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());

    EXPECT_EQ(Lines(vecLast.size(), WAIT), vecLast);
}

TEST_F(VideoStreamProducerPace, FrameOfOtherStreamsIsFollowedByTwentyMilliseconds)
{
    start(1);
    ASSERT_TRUE(m_consumer.waitForMore(3));

    const char* const pPause = "select 0.020000";
    EXPECT_EQ((Lines{WAIT, pPause, WAIT, pPause, WAIT}), firstWaits(5, "videocapture1"));
}

TEST_F(VideoStreamProducerPace, DroppedFrameIsFollowedByTheNextWaitAtOnce)
{
    m_camera.command("bytes 175 3");

    start(0);
    ASSERT_TRUE(m_consumer.waitForMore(2));

    EXPECT_EQ((Lines{WAIT, WAIT, WAIT, WAIT, "select 0.010000", WAIT}), waitsFromFrame(6));
}

TEST_F(VideoStreamProducerPace, FrozenCameraIsLostAtTheFourthWait)
{
    m_camera.command("freeze");

    start(0);
    ASSERT_TRUE(m_camera.waitForCalls("close", 1));
    m_camera.command("thaw");
    ASSERT_TRUE(m_consumer.waitForMore(1));

    const char* const pPause = "select 0.020000";
    EXPECT_EQ(
        (Lines{WAIT, pPause, WAIT, pPause, WAIT, pPause, WAIT, SECOND, "select 0.500000", WAIT}),
        firstWaits(10));
}

TEST_F(VideoStreamProducerPace, LostCameraIsTriedOnceASecond)
{
    m_camera.command("fail DQBUF ENODEV");
    m_camera.command("fail stat ENOENT 2 skip 1");

    start(0);
    ASSERT_TRUE(m_consumer.waitForMore(1));

    // The first frame may be late on a busy machine, and is waited for again then.
    const Lines vecWait = waits();
    const auto first = std::find(vecWait.begin(), vecWait.end(), SECOND);
    ASSERT_LT(vecWait.begin(), first);
    EXPECT_EQ(WAIT, vecWait.front());
    EXPECT_EQ(WAIT, *(first - 1));
    // After the close and after each of the two failures, then once it is open.
    ASSERT_LE(5, vecWait.end() - first);
    EXPECT_EQ((Lines{SECOND, SECOND, SECOND, "select 0.500000", WAIT}), Lines(first, first + 5));
}

TEST_F(VideoStreamProducerPace, CameraThatDoesNotStreamIsTriedOnceASecond)
{
    m_camera.command("fail STREAMON EIO 3"); // at the start, and at two recoveries

    start(0);
    ASSERT_TRUE(m_consumer.waitForMore(1));

    const Lines vecWait = waits();
    const auto first = std::find(vecWait.begin(), vecWait.end(), SECOND);
    ASSERT_LE(4, vecWait.end() - first);
    EXPECT_EQ((Lines{SECOND, SECOND, SECOND, "select 0.500000"}), Lines(first, first + 4));
}
