// One stream: delivery to the consumers, and recovery of a lost camera.
#include "VideoStreamProducer.h"

#include <atomic>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

#include <sys/prctl.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "EventBus.h"
#include "Eventually.h"
#include "FrameConsumer.h"
#include "LogCapture.h"
#include "LogEvent.h"
#include "VideoFrameEvent.h"
#include "VideoStreamFixture.h"
#include "VirtualCamera.h"

namespace {

std::string logged(const std::string& strFunction, const std::string& strMessage)
{
    return "[debug] [videocapture/VideoStreamProducer ] [" + strFunction + "] " + strMessage;
}

/** Counts the frames on the bus. */
class FrameCounter
{
public:
    FrameCounter()
    {
        EventBus<VideoFrameEvent>::subscribe(this, &FrameCounter::onFrame);
    }
    FrameCounter(const FrameCounter&) = delete;
    FrameCounter& operator=(const FrameCounter&) = delete;
    ~FrameCounter()
    {
        EventBus<VideoFrameEvent>::unsubscribe(this, &FrameCounter::onFrame);
    }
    int onFrame(Event* pEvent)
    {
        (void)pEvent;
        ++m_nFrames;
        return 0;
    }

    std::atomic<int> m_nFrames{0};
};

} // namespace

TEST_F(VideoStreamProducerStream, ConsumersGetEveryFrameOnTheCaptureThread)
{
    start();

    EXPECT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    ASSERT_TRUE(m_consumer.waitForMore(3));

    EXPECT_EQ("videocapture0", m_consumer.thread());
    EXPECT_EQ(1, m_log.count(logged("registerConsumer",
                                    "add video consumer, stream=0, Total consumer num=1\n")));
}

TEST_F(VideoStreamProducerStream, ConsumersAreCalledInOrderOfRegistrationWithTheSameFrame)
{
    std::vector<std::pair<int, const VENC_FRAME_T*>> vecCall; // capture thread, then this one
    m_consumer.m_onFrame = [&](VideoFrameEvent& event) {
        vecCall.emplace_back(1, event.m_frame.get());
    };
    m_second.m_onFrame = [&](VideoFrameEvent& event) {
        EXPECT_EQ(0, event.m_nStream);
        vecCall.emplace_back(2, event.m_frame.get());
    };
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_second));
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));

    start();
    ASSERT_TRUE(m_consumer.waitForMore(2));
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());

    ASSERT_LE(4U, vecCall.size());
    for (size_t i = 0; i + 1 < vecCall.size(); i += 2) {
        EXPECT_EQ(2, vecCall[i].first);
        EXPECT_EQ(1, vecCall[i + 1].first);
        EXPECT_EQ(vecCall[i].second, vecCall[i + 1].second);
    }
}

TEST_F(VideoStreamProducerStream, BufferIsQueuedAgainBeforeDelivery)
{
    std::vector<std::string> vecLastCall; // capture thread, then this one
    m_consumer.m_onFrame = [&](VideoFrameEvent&) {
        vecLastCall.push_back(m_camera.readJournal().back());
    };
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));

    start();
    ASSERT_TRUE(m_consumer.waitForMore(3));
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());

    for (const std::string& strCall : vecLastCall) {
        EXPECT_EQ(0U, strCall.rfind("QBUF type=1 memory=1 index=", 0)) << strCall;
    }
}

TEST_F(VideoStreamProducerStream, FrameStaysWithWhoKeepsItsHolder)
{
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    start();
    ASSERT_TRUE(m_consumer.waitForMore(4));
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());
    ASSERT_EQ(RET_SUCCESS, m_producer.uninit());

    uint64_t u64Last = 0;
    for (const PVENC_FRAME_T& frame : m_consumer.frames()) {
        EXPECT_LT(u64Last, +frame.get()->u64TimeStamp);
        u64Last = frame.get()->u64TimeStamp;
        EXPECT_EQ(0xFF, frame.get()->au8Data[0]); // a JPEG picture's first two bytes
        EXPECT_EQ(0xD8, frame.get()->au8Data[1]);
    }
}

TEST_F(VideoStreamProducerStream, DeliberateLinesAreLoggedWithoutTheListsLock)
{
    // A log sink that needs the list, as one that takes a consumer's lock would.
    struct Sink
    {
        int onLog(Event* pEvent)
        {
            (void)pEvent;
            if (nullptr != m_pToRegister) {
                IConsumer* pNext = std::exchange(m_pToRegister, nullptr);
                m_vecResult.push_back(m_producer.registerConsumer(pNext));
            } else if (nullptr != m_pToCancel) {
                IConsumer* pNext = std::exchange(m_pToCancel, nullptr);
                m_vecResult.push_back(m_producer.cancelConsumer(pNext));
            }
            return 0;
        }
        VideoStreamProducer& m_producer;
        IConsumer* m_pToRegister;
        IConsumer* m_pToCancel;
        std::vector<RET_E> m_vecResult;
    } sink{m_producer, nullptr, nullptr, {}};
    EventBus<LogEvent>::subscribe(&sink, &Sink::onLog);

    sink.m_pToRegister = &m_second;
    EXPECT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    sink.m_pToCancel = &m_second;
    EXPECT_EQ(RET_SUCCESS, m_producer.cancelConsumer(&m_consumer));

    EventBus<LogEvent>::unsubscribe(&sink, &Sink::onLog);
    EXPECT_EQ((std::vector<RET_E>{RET_SUCCESS, RET_SUCCESS}), sink.m_vecResult);
}

TEST_F(VideoStreamProducerStream, SecondRegistrationIsRefused)
{
    EXPECT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    EXPECT_EQ(RET_FAILED, m_producer.registerConsumer(&m_consumer));
    EXPECT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_second));

    EXPECT_EQ(
        (Lines{logged("registerConsumer", "add video consumer, stream=0, Total consumer num=1\n"),
               logged("registerConsumer", "consumer is already in list.\n"),
               logged("registerConsumer", "add video consumer, stream=0, Total consumer num=2\n")}),
        m_log.lines());
}

TEST_F(VideoStreamProducerStream, CancelledConsumerIsNotCalledAnyMore)
{
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_second));
    start();
    ASSERT_TRUE(m_consumer.waitForMore(1));

    EXPECT_EQ(RET_SUCCESS, m_producer.cancelConsumer(&m_consumer));
    const size_t uFrames = m_consumer.total();
    ASSERT_TRUE(m_second.waitForMore(2));

    EXPECT_EQ(uFrames, m_consumer.total());
    EXPECT_EQ(1, m_log.count(logged("cancelConsumer",
                                    "delete video consumer, stream=0, Total consumer num=1\n")));
}

TEST_F(VideoStreamProducerStream, CancelWaitsForTheDeliveryUnderWay)
{
    std::atomic<bool> bInside{false};
    std::atomic<bool> bGoOn{false};
    std::atomic<bool> bLeft{false};
    m_consumer.m_onFrame = [&](VideoFrameEvent&) {
        bInside = true;
        while (!bGoOn) {
            std::this_thread::yield();
        }
        bLeft = true;
    };
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    start();
    ASSERT_TRUE(eventually([&] { return bInside.load(); }));

    const CallJournal journal("pthread_mutex_lock");
    bool bLeftBeforeCancelled = false;
    std::thread canceller([&] {
        prctl(PR_SET_NAME, "canceller", 0, 0, 0);
        EXPECT_EQ(RET_SUCCESS, m_producer.cancelConsumer(&m_consumer));
        bLeftBeforeCancelled = bLeft;
    });
    EXPECT_TRUE(eventually([] { return !CallJournal::lines("canceller").empty(); }));
    EXPECT_EQ(1U, CallJournal::lines("canceller").size()) << "it waits for the list";
    bGoOn = true;
    canceller.join();

    EXPECT_TRUE(bLeftBeforeCancelled);
}

TEST_F(VideoStreamProducerStream, ConsumerThatTakesTheFrameAwayEndsItsDelivery)
{
    std::atomic<int> nTaken{0};
    m_consumer.m_onFrame = [&](VideoFrameEvent& event) {
        event.m_frame = PVENC_FRAME_T();
        ++nTaken;
    };
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_second));

    start();
    ASSERT_TRUE(eventually([&] { return nTaken >= 3; }));
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());

    EXPECT_EQ(0U, m_second.total());
}

TEST_F(VideoStreamProducerStream, SecondInitTakesTheStreamsNumber)
{
    std::atomic<int32_t> s32Stream{-1};
    m_consumer.m_onFrame = [&](VideoFrameEvent& event) { s32Stream = event.m_nStream; };
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    ASSERT_EQ(RET_SUCCESS, m_producer.init(0));

    EXPECT_EQ(RET_SUCCESS, m_producer.init(1));
    ASSERT_EQ(RET_SUCCESS, m_producer.start());

    ASSERT_TRUE(m_consumer.waitForMore(1));
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());
    EXPECT_EQ(1, s32Stream);
}

TEST_F(VideoStreamProducerStream, CancelOfAnUnknownConsumerFailsInSilence)
{
    EXPECT_EQ(RET_FAILED, m_producer.cancelConsumer(&m_consumer));

    EXPECT_EQ(Lines{}, m_log.lines());
}

TEST_F(VideoStreamProducerStream, AnythingButAVideoConsumerIsABadCast)
{
    IConsumer plain;

    EXPECT_THROW((void)m_producer.registerConsumer(&plain), std::bad_cast);
    EXPECT_THROW((void)m_producer.cancelConsumer(&plain), std::bad_cast);
}

TEST_F(VideoStreamProducerStream, ConsumerMayNotComeOrGoDuringDelivery)
{
    std::atomic<int> nRegister{-1};
    std::atomic<int> nCancel{-1};
    m_consumer.m_onFrame = [&](VideoFrameEvent&) {
        nRegister = m_producer.registerConsumer(&m_second);
        nCancel = m_producer.cancelConsumer(&m_consumer);
    };
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));

    start();
    ASSERT_TRUE(m_consumer.waitForMore(2));
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());

    EXPECT_EQ(RET_FAILED, nRegister);
    EXPECT_EQ(RET_FAILED, nCancel);
    EXPECT_EQ(0U, m_second.total());
}

TEST_F(VideoStreamProducerStream, WithoutConsumersFramesAreTakenAndPublished)
{
    const FrameCounter counter;

    start();

    EXPECT_TRUE(eventually([&] { return counter.m_nFrames >= 5; }));
    EXPECT_LE(5U, m_camera.count("DQBUF type=1 memory=1 = 0"));
}

TEST_F(VideoStreamProducerStream, StopEndsStreamingAndStartResumesIt)
{
    ASSERT_EQ(RET_SUCCESS, m_producer.registerConsumer(&m_consumer));
    start();
    ASSERT_TRUE(m_consumer.waitForMore(1));

    EXPECT_EQ(RET_SUCCESS, m_producer.stop());
    const size_t uFrames = m_consumer.total();
    EXPECT_EQ("STREAMOFF type=1 = 0", m_camera.readJournal().back());
    EXPECT_EQ(uFrames, m_consumer.total());

    EXPECT_EQ(RET_SUCCESS, m_producer.start());
    EXPECT_TRUE(m_consumer.waitForMore(1));
}

TEST_F(VideoStreamProducerStream, UninitClosesTheCamera)
{
    start();
    ASSERT_EQ(RET_SUCCESS, m_producer.stop());

    EXPECT_EQ(RET_SUCCESS, m_producer.uninit());

    EXPECT_EQ((Lines{"STREAMOFF type=1 = 0", "munmap length=614400 offset=0 = 0",
                     "munmap length=614400 offset=614400 = 0", "close = 0"}),
              callsFrom("STREAMOFF"));
    EXPECT_EQ(RET_SUCCESS, m_producer.init(0)); // and can be opened again
}

TEST_F(VideoStreamProducerStream, StepsOutOfOrderDoNothing)
{
    EXPECT_EQ(RET_SUCCESS, m_producer.start());
    EXPECT_EQ(RET_SUCCESS, m_producer.stop());
    EXPECT_EQ(RET_SUCCESS, m_producer.uninit());
    EXPECT_EQ(Lines{}, m_camera.readJournal());

    EXPECT_EQ(RET_SUCCESS, m_producer.init(0));
    EXPECT_EQ(RET_SUCCESS, m_producer.init(0));
    EXPECT_EQ(1U, m_camera.count("open "));

    EXPECT_EQ(RET_SUCCESS, m_producer.start());
    EXPECT_EQ(RET_SUCCESS, m_producer.start());
    EXPECT_EQ(1U, m_camera.count("STREAMON "));
}
