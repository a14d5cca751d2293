// How long the capture thread pauses: after each frame, and between attempts at a lost camera.
#include "VideoStreamProducer.h"

#include <vector>

#include <gtest/gtest.h>

#include "FrameConsumer.h"
#include "LogCapture.h"
#include "Time.h"
#include "VirtualCamera.h"

namespace {

class CapturePace : public testing::Test
{
protected:
    ~CapturePace() override
    {
        EXPECT_EQ(RET_SUCCESS, m_producer.stop());
    }

    void start(int32_t s32Stream)
    {
        ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
        ASSERT_EQ(RET_SUCCESS, m_producer.init(s32Stream));
        ASSERT_EQ(RET_SUCCESS, m_producer.start());
    }

    /** Take some frames of a stream and expect a pause between any two deliveries. */
    void expectPause(int32_t s32Stream, const Time& pause)
    {
        std::vector<Time> vecTime; // capture thread, then this one
        m_consumer.m_onFrame = [&](VideoFrameEvent& event) {
            EXPECT_EQ(s32Stream, event.m_nStream);
            vecTime.push_back(monotonicNow());
        };
        start(s32Stream);
        ASSERT_TRUE(m_consumer.waitForMore(10));
        ASSERT_EQ(RET_SUCCESS, m_producer.stop());

        for (size_t i = 1; i < vecTime.size(); ++i) {
            EXPECT_LE(pause, vecTime[i] - vecTime[i - 1]) << i;
        }
    }

    // The consumer outlives the producer, which is stopped before it goes.
    VirtualCamera m_camera;
    LogCapture m_log;
    FrameConsumer m_consumer;
    VideoStreamProducer m_producer;
};

} // namespace

TEST_F(CapturePace, FramesOfStreamZeroAreTenMillisecondsApart)
{
    m_camera.command("fps 200");

    expectPause(0, Time(0, 10000));

    EXPECT_EQ("videocapture0", m_consumer.thread());
}

TEST_F(CapturePace, FramesOfOtherStreamsAreTwentyMillisecondsApart)
{
    m_camera.command("fps 100");

    expectPause(1, Time(0, 20000));

    EXPECT_EQ("videocapture1", m_consumer.thread());
}

TEST_F(CapturePace, FrozenCameraIsLostAfterFourSeconds)
{
    m_camera.command("freeze");
    const Time before = monotonicNow();

    start(0);

    ASSERT_TRUE(m_camera.waitForCalls("STREAMOFF ", 1));
    EXPECT_LE(Time(4, 0), monotonicNow() - before);
    ASSERT_TRUE(m_camera.waitForCalls("close", 1));
    m_camera.command("thaw");
}

TEST_F(CapturePace, LostCameraIsTriedOnceASecond)
{
    m_camera.command("fail DQBUF ENODEV 1 skip 2");
    m_camera.command("fail stat ENOENT 2 skip 1");
    const Time before = monotonicNow();

    start(0);

    // A second after the close and after each of the two failures, then half a second.
    ASSERT_TRUE(m_camera.waitForCalls("STREAMON ", 2));
    EXPECT_LE(Time(3, 0), monotonicNow() - before);
    ASSERT_TRUE(m_consumer.waitForMore(1));
    EXPECT_LE(Time(3, 500000), monotonicNow() - before);
}

TEST_F(CapturePace, CameraThatDoesNotStreamIsTriedOnceASecond)
{
    m_camera.command("fail STREAMON EIO 3"); // at the start, and at two recoveries
    const Time before = monotonicNow();

    start(0);

    ASSERT_TRUE(m_camera.waitForCalls("STREAMON ", 4));
    EXPECT_LE(Time(3, 0), monotonicNow() - before);
}
