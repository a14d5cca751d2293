// The capture object: routing of consumers, exposure requests, and the order of its life.
#include "VideoCapturer.h"

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include <linux/videodev2.h>
#include <sys/prctl.h>

#include <gtest/gtest.h>

#include "AtExitOrder.h"
#include "CallJournal.h"
#include "DriverAnswer.h"
#include "EventBus.h"
#include "Eventually.h"
#include "ExposureTool.h"
#include "Fault.h"
#include "FrameConsumer.h"
#include "LogCapture.h"
#include "LogEvent.h"
#include "SetExposureEvent.h"
#include "UvcProber.h"
#include "VideoFrameEvent.h"
#include "VirtualCamera.h"

namespace {

using Lines = std::vector<std::string>;

class VideoCapturerStream : public testing::Test
{
protected:
    ~VideoCapturerStream() override
    {
        EXPECT_EQ(RET_SUCCESS, m_capturer.stop());
        EXPECT_EQ(RET_SUCCESS, m_capturer.uninit());
    }

    void start()
    {
        ASSERT_EQ(RET_SUCCESS, m_capturer.init());
        ASSERT_EQ(RET_SUCCESS, m_capturer.start());
    }

    VirtualCamera m_camera;
    LogCapture m_log;
    VideoCapturer& m_capturer = VideoCapturer::getInstance();
    FrameConsumer m_consumer;
};

} // namespace

TEST_F(VideoCapturerStream, FramesReachTheConsumerOfStreamZero)
{
    start();

    EXPECT_EQ(RET_SUCCESS, m_capturer.registerConsumer(&m_consumer));
    EXPECT_TRUE(m_consumer.waitForMore(2));
    EXPECT_EQ(RET_SUCCESS, m_capturer.cancelConsumer(&m_consumer));

    EXPECT_EQ(RET_FAILED, m_capturer.cancelConsumer(&m_consumer));
}

TEST_F(VideoCapturerStream, DeliberateSecondInitFirstGivesTheCameraBack)
{
    ASSERT_EQ(RET_SUCCESS, m_capturer.init()); // and no uninit

    start();

    EXPECT_EQ(RET_SUCCESS, m_capturer.registerConsumer(&m_consumer));
    EXPECT_TRUE(m_consumer.waitForMore(2));
    EXPECT_EQ(RET_SUCCESS, m_capturer.cancelConsumer(&m_consumer));
    for (const std::string& strCall : m_camera.readJournal()) {
        EXPECT_EQ(std::string::npos, strCall.find("EBUSY")) << strCall;
    }
}

TEST_F(VideoCapturerStream, OnlyStreamZeroExists)
{
    start();

    for (const int32_t s32Stream : {1, 2, -1}) {
        m_consumer.setStream(s32Stream);
        EXPECT_EQ(RET_FAILED, m_capturer.registerConsumer(&m_consumer)) << s32Stream;
        EXPECT_EQ(RET_FAILED, m_capturer.cancelConsumer(&m_consumer)) << s32Stream;
    }
}

TEST_F(VideoCapturerStream, AnythingButAVideoConsumerIsRefused)
{
    start();
    IConsumer plain;

    EXPECT_EQ(RET_FAILED, m_capturer.registerConsumer(&plain));
    EXPECT_EQ(RET_FAILED, m_capturer.cancelConsumer(&plain));
    EXPECT_EQ(RET_FAILED, m_capturer.registerConsumer(nullptr));
}

TEST_F(VideoCapturerStream, ConsumersAreRefusedBeforeInitAndAfterUninit)
{
    EXPECT_EQ(RET_FAILED, m_capturer.registerConsumer(&m_consumer));
    EXPECT_EQ(RET_FAILED, m_capturer.cancelConsumer(&m_consumer));

    ASSERT_EQ(RET_SUCCESS, m_capturer.init());
    EXPECT_EQ(RET_SUCCESS, m_capturer.registerConsumer(&m_consumer)); // not only once started
    ASSERT_EQ(RET_SUCCESS, m_capturer.uninit());

    EXPECT_EQ(RET_FAILED, m_capturer.registerConsumer(&m_consumer));
    EXPECT_EQ(RET_FAILED, m_capturer.cancelConsumer(&m_consumer));
}

// A registration under way must not keep the camera busy for the next init.
TEST_F(VideoCapturerStream, UninitClosesTheCameraAlsoDuringARegistration)
{
    // A log sink that takes its time: the line of the registration is logged inside it.
    struct Sink
    {
        int onLog(Event* pEvent)
        {
            (void)pEvent;
            if (std::exchange(m_bArmed, false)) {
                EXPECT_EQ(RET_SUCCESS, m_capturer.uninit());
                m_uClosed = m_camera.count("close");
            }
            return 0;
        }
        VideoCapturer& m_capturer;
        const VirtualCamera& m_camera;
        bool m_bArmed;
        size_t m_uClosed;
    } sink{m_capturer, m_camera, false, 0};
    ASSERT_EQ(RET_SUCCESS, m_capturer.init());
    EventBus<LogEvent>::subscribe(&sink, &Sink::onLog);

    sink.m_bArmed = true;
    EXPECT_EQ(RET_SUCCESS, m_capturer.registerConsumer(&m_consumer));

    EventBus<LogEvent>::unsubscribe(&sink, &Sink::onLog);
    EXPECT_EQ(1U, sink.m_uClosed);
}

TEST_F(VideoCapturerStream, InitWithoutMemoryFails)
{
    {
        const FaultScope fault(
            ("malloc>=" + std::to_string(sizeof(VideoStreamProducer)) + ":1:ENOMEM").c_str());
        EXPECT_EQ(RET_FAILED, m_capturer.init());
        EXPECT_EQ(1U, faultHits());
    }

    EXPECT_EQ(Lines{}, m_camera.readJournal());
    EXPECT_EQ(RET_FAILED, m_capturer.start());
}

TEST_F(VideoCapturerStream, StartBeforeInitFails)
{
    EXPECT_EQ(RET_FAILED, m_capturer.start());
}

TEST_F(VideoCapturerStream, NextLifeBeginsWithoutConsumers)
{
    start();
    ASSERT_EQ(RET_SUCCESS, m_capturer.registerConsumer(&m_consumer));
    ASSERT_TRUE(m_consumer.waitForMore(1));
    ASSERT_EQ(RET_SUCCESS, m_capturer.stop());
    ASSERT_EQ(RET_SUCCESS, m_capturer.uninit());
    EXPECT_EQ("close = 0", m_camera.readJournal().back());

    start();

    EXPECT_EQ(RET_FAILED, m_capturer.cancelConsumer(&m_consumer));
    EXPECT_EQ(RET_SUCCESS, m_capturer.registerConsumer(&m_consumer));
    EXPECT_TRUE(m_consumer.waitForMore(1));
}

TEST_F(VideoCapturerStream, ExposureEventRunsTheToolBeforePublishReturns)
{
    const ExposureTool tool;
    start();

    SetExposureEvent event(0, 156);
    EventBus<SetExposureEvent>::publish(event);

    EXPECT_EQ("--set-ctrl=exposure_auto=1\n--set-ctrl=exposure_absolute=156\n", tool.calls());
    EXPECT_EQ(1, m_log.count("[debug] [videocapture/VideoCapturer ] [setExposure] "
                             "set exposure(156)\n"));
}

TEST_F(VideoCapturerStream, ExposureEventsAreFollowedFromStartToStop)
{
    const ExposureTool tool;
    SetExposureEvent event(0, 1);

    EventBus<SetExposureEvent>::publish(event);
    ASSERT_EQ(RET_SUCCESS, m_capturer.init());
    EventBus<SetExposureEvent>::publish(event);
    EXPECT_EQ("", tool.calls());

    ASSERT_EQ(RET_SUCCESS, m_capturer.start());
    EventBus<SetExposureEvent>::publish(event);
    const std::string strCalls = tool.calls();
    EXPECT_NE("", strCalls);

    ASSERT_EQ(RET_SUCCESS, m_capturer.stop());
    EventBus<SetExposureEvent>::publish(event);
    EXPECT_EQ(strCalls, tool.calls());
}

TEST_F(VideoCapturerStream, ExposureEventsAreNotFollowedBeforeTheStreamHasStarted)
{
    const ExposureTool tool;
    ASSERT_EQ(RET_SUCCESS, m_capturer.init());
    int nStarted = 0;
    {
        const DriverAnswer answer(nullptr, [&nStarted](unsigned long ulRequest, void*) {
            if (VIDIOC_STREAMON == ulRequest) {
                ++nStarted;
                SetExposureEvent event(0, 7);
                EventBus<SetExposureEvent>::publish(event);
            }
        });
        ASSERT_EQ(RET_SUCCESS, m_capturer.start());
    }

    EXPECT_EQ(1, nStarted);
    EXPECT_EQ("", tool.calls());
}

TEST_F(VideoCapturerStream, ExposureEventsAreNotFollowedWhileTheStreamStops)
{
    const ExposureTool tool;
    std::atomic<bool> bInside{false};
    std::atomic<bool> bGoOn{false};
    m_consumer.m_onFrame = [&](VideoFrameEvent&) {
        bInside = true;
        EXPECT_TRUE(eventually([&] { return bGoOn.load(); }));
    };
    start();
    ASSERT_EQ(RET_SUCCESS, m_capturer.registerConsumer(&m_consumer));
    ASSERT_TRUE(eventually([&] { return bInside.load(); }));
    const CallJournal journal("select");
    std::thread stopper([&] {
        prctl(PR_SET_NAME, "stopper", 0, 0, 0);
        EXPECT_EQ(RET_SUCCESS, m_capturer.stop());
    });
    // It waits for the capture thread.
    ASSERT_TRUE(eventually([] { return CallJournal::lines("stopper").size() >= 2; }));

    SetExposureEvent event(0, 7);
    EventBus<SetExposureEvent>::publish(event);

    bGoOn = true;
    stopper.join();
    EXPECT_EQ("", tool.calls());
    EXPECT_EQ(RET_SUCCESS, m_capturer.cancelConsumer(&m_consumer));
}

TEST_F(VideoCapturerStream, ExposureOfAnUnknownStreamFails)
{
    const ExposureTool tool;
    start();

    for (const int32_t s32Stream : {1, -1}) {
        SetExposureEvent event(s32Stream, 5);
        EXPECT_EQ(RET_FAILED, m_capturer.setExposure(&event));
    }

    EXPECT_EQ("", tool.calls());
    EXPECT_EQ(2, m_log.count("[debug] [videocapture/VideoCapturer ] [setExposure] "
                             "set exposure(5)\n"));
}

TEST_F(VideoCapturerStream, ExposureBeforeInitFails)
{
    SetExposureEvent event(0, 5);

    EXPECT_EQ(RET_FAILED, m_capturer.setExposure(&event));
}

TEST_F(VideoCapturerStream, ExposureTakesNoOtherEvent)
{
    Event event;

    EXPECT_THROW((void)m_capturer.setExposure(&event), std::bad_cast);
}

TEST_F(VideoCapturerStream, ConsumersComeAndGoWhileTheCaptureSideStartsAndEnds)
{
    std::atomic<bool> bQuit{false};
    std::vector<std::thread> vecThread;
    for (int i = 0; i < 2; ++i) {
        vecThread.emplace_back([&] {
            FrameConsumer consumer;
            while (!bQuit) {
                if (RET_SUCCESS == m_capturer.registerConsumer(&consumer)) {
                    std::this_thread::yield();
                    (void)m_capturer.cancelConsumer(&consumer); // refused after an uninit
                }
            }
        });
    }

    for (int i = 0; i < 5; ++i) {
        start();
        ASSERT_TRUE(m_camera.waitForCalls("DQBUF ", static_cast<size_t>(i + 1)));
        EXPECT_EQ(RET_SUCCESS, m_capturer.stop());
        EXPECT_EQ(RET_SUCCESS, m_capturer.uninit());
    }
    bQuit = true;
    for (std::thread& thread : vecThread) {
        thread.join();
    }

    EXPECT_EQ(5U, m_camera.count("open "));
    EXPECT_EQ(5U, m_camera.count("close"));
}

TEST_F(VideoCapturerStream, ProcessMayExitWhileFramesFlow)
{
    EXPECT_EXIT(
        {
            start();
            static FrameConsumer consumer; // destroyed before the capture object: it came later
            (void)m_capturer.registerConsumer(&consumer);
            const bool bFrames = consumer.waitForMore(2);
            (void)m_capturer.cancelConsumer(&consumer);
            exit(bFrames ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

// The first to use any of them is the capture object.
static void exitInOrder()
{
    const void* const pCapturer = &VideoCapturer::getInstance();
    exit(outlive({&Log::getInstance(), &UvcProber::getInstance(),
                  &EventBus<VideoFrameEvent>::getInstance(),
                  &EventBus<SetExposureEvent>::getInstance()},
                 pCapturer)
             ? 0
             : 1);
}

TEST(VideoCapturerExit, WhatItsThreadsUseOutlivesIt)
{
    EXPECT_EXIT(exitInOrder(), testing::ExitedWithCode(0), "");
}
