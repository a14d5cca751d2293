// The capture thread of a stream: what kind of thread it is, and its end.
#include <atomic>
#include <thread>

#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Eventually.h"
#include "FrameConsumer.h"
#include "Threads.h"
#include "VideoFrameEvent.h"
#include "VideoStreamFixture.h"
#include "VideoStreamProducer.h"
#include "VirtualCamera.h"

static std::atomic<int> g_nNice{0}; // what a thread has last added to its nice value

// The linker gives the code's calls to this one, which hands them on to the C library's. That one's
// effect cannot be seen where the tests have the lowest priority already.
extern "C" int __wrap_nice(int nIncrement);
extern "C" int __real_nice(int nIncrement);

int __wrap_nice(int nIncrement)
{
    g_nNice = nIncrement;
    return __real_nice(nIncrement);
}

namespace {

using VideoStreamProducerThread = VideoStreamProducerStream;

} // namespace

TEST_F(VideoStreamProducerThread, CaptureThreadIsDetached)
{
    const CallJournal journal("pthread_create pthread_join");
    start();

    EXPECT_EQ(RET_SUCCESS, m_producer.stop());
    EXPECT_EQ(RET_SUCCESS, m_producer.uninit());

    EXPECT_EQ(Lines{"pthread_create detached"}, CallJournal::lines());
}

TEST_F(VideoStreamProducerThread, CaptureThreadIsAnOrdinaryOne)
{
    g_nNice = 100;
    std::atomic<int> nPolicy{-1};
    m_consumer.m_onFrame = [&](VideoFrameEvent&) {
        nPolicy = sched_getscheduler(0); // of the calling thread
    };
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    start();
    ASSERT_TRUE(m_consumer.waitForMore(1));
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());

    EXPECT_EQ(0, g_nNice);
    EXPECT_EQ(SCHED_OTHER, nPolicy);
}

TEST_F(VideoStreamProducerThread, UninitEndsTheCaptureThread)
{
    start();
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());
    EXPECT_EQ(1, countThreads("videocapture0"));

    EXPECT_EQ(RET_SUCCESS, m_producer.uninit());

    EXPECT_TRUE(eventually([] { return 0 == countThreads("videocapture0"); }));
}

TEST_F(VideoStreamProducerThread, UninitWithoutStopEndsTheCaptureThreadFirst)
{
    std::atomic<bool> bInside{false};
    std::atomic<bool> bGoOn{false};
    m_consumer.m_onFrame = [&](VideoFrameEvent&) {
        bInside = true;
        EXPECT_TRUE(eventually([&] { return bGoOn.load(); }));
    };
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    start();
    ASSERT_TRUE(eventually([&] { return bInside.load(); }));
    const CallJournal journal("select");
    std::thread ender([&] {
        prctl(PR_SET_NAME, "ender", 0, 0, 0);
        EXPECT_EQ(RET_SUCCESS, m_producer.uninit());
    });

    EXPECT_TRUE(eventually([] { return CallJournal::lines("ender").size() >= 2; }));
    EXPECT_EQ(0U, m_camera.count("close")) << "it waits for the thread";

    bGoOn = true;
    ender.join();
    EXPECT_EQ(1U, m_camera.count("close"));
}
