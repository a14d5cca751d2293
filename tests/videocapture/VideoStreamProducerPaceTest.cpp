// How long the capture thread pauses: after each frame, and between attempts at a lost camera.
#include <atomic>

#include <gtest/gtest.h>

#include "FrameConsumer.h"
#include "LogCapture.h"
#include "Time.h"
#include "VideoStreamProducer.h"
#include "VirtualCamera.h"

namespace {

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

    /** Take frames of a stream: no two are nearer than the shortest pause, some nearer than far. */
    void expectPause(int32_t s32Stream, const Time& shortest, const Time& far)
    {
        std::atomic<bool> bNear{false};
        Time last; // the capture thread's
        m_consumer.m_onFrame = [&](VideoFrameEvent& event) {
            EXPECT_EQ(s32Stream, event.m_nStream);
            const Time now = monotonicNow();
            if (!(last == Time())) {
                EXPECT_LE(shortest, now - last);
                bNear = bNear || now - last < far;
            }
            last = now;
        };
        start(s32Stream);
        ASSERT_TRUE(m_consumer.waitForMore(10));
        EXPECT_TRUE(eventually([&bNear] { return bNear.load(); }));
        ASSERT_EQ(RET_SUCCESS, m_producer.stop());
    }

    /** The shortest time since then, and a generous longest one. */
    static void expectSince(const Time& before, const Time& shortest, const Time& longest)
    {
        const Time since = monotonicNow() - before;
        EXPECT_LE(shortest, since);
        EXPECT_GT(longest, since);
    }

    // The consumer outlives the producer, which is stopped before it goes.
    VirtualCamera m_camera;
    LogCapture m_log;
    FrameConsumer m_consumer;
    VideoStreamProducer m_producer;
};

} // namespace

TEST_F(VideoStreamProducerPace, FramesOfStreamZeroAreTenMillisecondsApart)
{
    m_camera.command("fps 200");

    expectPause(0, Time(0, 10000), Time(0, 20000));

    EXPECT_EQ("videocapture0", m_consumer.thread());
}

TEST_F(VideoStreamProducerPace, FramesOfOtherStreamsAreTwentyMillisecondsApart)
{
    m_camera.command("fps 100");

    expectPause(1, Time(0, 20000), Time(0, 40000));

    EXPECT_EQ("videocapture1", m_consumer.thread());
}

TEST_F(VideoStreamProducerPace, FrozenCameraIsLostAfterFourSeconds)
{
    m_camera.command("freeze");
    const Time before = monotonicNow();

    start(0);

    ASSERT_TRUE(m_camera.waitForCalls("STREAMOFF ", 1));
    expectSince(before, Time(4, 0), Time(10, 0));
    ASSERT_TRUE(m_camera.waitForCalls("close", 1));
    m_camera.command("thaw");
}

TEST_F(VideoStreamProducerPace, LostCameraIsTriedOnceASecond)
{
    m_camera.command("fail DQBUF ENODEV 1 skip 2");
    m_camera.command("fail stat ENOENT 2 skip 1");
    const Time before = monotonicNow();

    start(0);

    // A second after the close and after each of the two failures, then half a second.
    ASSERT_TRUE(m_camera.waitForCalls("STREAMON ", 2));
    expectSince(before, Time(3, 0), Time(9, 0));
    ASSERT_TRUE(m_consumer.waitForMore(1));
    expectSince(before, Time(3, 500000), Time(10, 0));
}

TEST_F(VideoStreamProducerPace, CameraThatDoesNotStreamIsTriedOnceASecond)
{
    m_camera.command("fail STREAMON EIO 3"); // at the start, and at two recoveries
    const Time before = monotonicNow();

    start(0);

    ASSERT_TRUE(m_camera.waitForCalls("STREAMON ", 4));
    expectSince(before, Time(3, 0), Time(9, 0));
}
