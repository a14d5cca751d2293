// Taking single frames from the capture thread on demand.
#include <atomic>
#include <cstring>
#include <thread>

#include "EventBus.h"
#include "Eventually.h"
#include "Fault.h"
#include "VideoFrameEvent.h"
#include "VisionHost.h"

namespace {

/** A frame that says its number as time stamp and its stream as width. */
PVENC_FRAME_T makeFrame(uint32_t u32Number, int32_t s32Stream)
{
    VENC_FRAME_T header{};
    header.u64TimeStamp = u32Number;
    header.u32Width = static_cast<uint32_t>(s32Stream);
    return makeFrame(header, "");
}

/** Publishes frames without a pause on a thread of its own. */
class BusyPublisher
{
public:
    explicit BusyPublisher(int32_t s32Stream)
        : m_thread([this, s32Stream] {
              while (!m_bQuit) {
                  PVENC_FRAME_T frame = makeFrame(++m_u32Number, s32Stream);
                  VideoFrameEvent event(s32Stream, frame);
                  EventBus<VideoFrameEvent>::publish(event);
              }
          })
    {
    }
    BusyPublisher(const BusyPublisher&) = delete;
    BusyPublisher& operator=(const BusyPublisher&) = delete;
    ~BusyPublisher()
    {
        m_bQuit = true;
        m_thread.join();
    }

    std::atomic<uint32_t> m_u32Number{0}; // of the frame being published

private:
    std::atomic<bool> m_bQuit{false};
    std::thread m_thread;
};

class VideoProcessorGetFrame : public VisionHost
{
protected:
    /**
     * Whether the host still listens: who copies a holder that was made from a null pointer is
     * told so on standard output.
     */
    static bool isSubscribed()
    {
        testing::internal::CaptureStdout();
        PVENC_FRAME_T null(nullptr);
        VideoFrameEvent event(0, null);
        EventBus<VideoFrameEvent>::publish(event);
        const std::string strOutput = testing::internal::GetCapturedStdout();
        return "err: NULL pointer(safe pointer) !\n" != strOutput;
    }

    PVENC_FRAME_T m_frame;
};

} // namespace

TEST_F(VideoProcessorGetFrame, DetectorOfASubscriptionWorks)
{
    EventBus<VideoFrameEvent>::subscribe(&m_host, &VideoProcessor::onVideoFrame);
    EXPECT_TRUE(isSubscribed());

    EventBus<VideoFrameEvent>::unsubscribe(&m_host, &VideoProcessor::onVideoFrame);

    EXPECT_FALSE(isSubscribed());
}

TEST_F(VideoProcessorGetFrame, GivesAWholeFrameAndLeavesNoSubscription)
{
    startCapture();

    m_host.getFrame(m_frame);

    const VENC_FRAME_T* pFrame = m_frame.get();
    ASSERT_NE(nullptr, pFrame);
    EXPECT_NE(0U, numberOf(pFrame->au8Data, pFrame->u32Size));
    EXPECT_FALSE(isSubscribed());
}

TEST_F(VideoProcessorGetFrame, EachCallGivesANewerFrame)
{
    startCapture();
    uint64_t u64Last = 0;

    for (int i = 0; i < 5; ++i) {
        m_host.getFrame(m_frame);
        EXPECT_LT(u64Last, +m_frame.get()->u64TimeStamp);
        u64Last = m_frame.get()->u64TimeStamp;
    }
}

TEST_F(VideoProcessorGetFrame, FrameOutlivesTheNextFramesAndTheCamera)
{
    startCapture();
    m_host.getFrame(m_frame);
    const VENC_FRAME_T* pFrame = m_frame.get();
    const uint32_t u32Number = numberOf(pFrame->au8Data, pFrame->u32Size);
    ASSERT_NE(0U, u32Number);
    ASSERT_TRUE(m_camera.waitForCalls("DQBUF ", m_camera.count("DQBUF ") + 4));

    ASSERT_EQ(RET_SUCCESS, VideoCapturer::getInstance().stop());
    ASSERT_EQ(RET_SUCCESS, VideoCapturer::getInstance().uninit());

    EXPECT_EQ(u32Number, numberOf(pFrame->au8Data, pFrame->u32Size));
}

TEST_F(VideoProcessorGetFrame, WaitsForACameraThatComesLater)
{
    std::thread waiter([this] { m_host.getFrame(m_frame); });

    startCapture();
    waiter.join();

    EXPECT_NE(nullptr, m_frame.get());
}

TEST_F(VideoProcessorGetFrame, FrameIsNeverOlderThanTheCall)
{
    const BusyPublisher publisher(0);

    for (int i = 0; i < 20; ++i) {
        const uint32_t u32Before = publisher.m_u32Number;
        m_host.getFrame(m_frame);
        EXPECT_LE(u32Before, +m_frame.get()->u64TimeStamp);
    }
}

TEST_F(VideoProcessorGetFrame, OtherStreamsAreNotTaken)
{
    std::atomic<bool> bDone{false};
    std::thread waiter([&] {
        m_host.getFrame(m_frame);
        bDone = true;
    });
    {
        const BusyPublisher publisher(1);
        EXPECT_TRUE(eventually([&] { return publisher.m_u32Number > 10000; }));
        EXPECT_FALSE(bDone);
    }
    const BusyPublisher publisher(0);
    waiter.join();

    EXPECT_EQ(0U, +m_frame.get()->u32Width);
}

TEST_F(VideoProcessorGetFrame, FrameOfAnyStreamIsHandledWithSuccess)
{
    for (const int32_t s32Stream : {0, 1}) {
        PVENC_FRAME_T frame = makeFrame(1, s32Stream);
        VideoFrameEvent event(s32Stream, frame);

        EXPECT_EQ(0, m_host.onVideoFrame(&event)) << s32Stream;
    }
}

TEST_F(VideoProcessorGetFrame, WithoutMemoryAFrameIsDropped)
{
    PVENC_FRAME_T frame = makeFrame(1, 0);
    VideoFrameEvent event(0, frame);
    {
        FaultScope fault("malloc:1:ENOMEM");
        EXPECT_EQ(0, m_host.onVideoFrame(&event));
        EXPECT_EQ(1u, faultHits());
    }

    startCapture();
    m_host.getFrame(frame);
    EXPECT_NE(0u, numberOf(frame.get()->au8Data, frame.get()->u32Size));
}

TEST_F(VideoProcessorGetFrame, SimultaneousCallersGetAFrameEach)
{
    startCapture();
    const auto take = [this] {
        uint64_t u64Last = 0;
        for (int i = 0; i < 8; ++i) {
            PVENC_FRAME_T frame;
            m_host.getFrame(frame);
            ASSERT_NE(nullptr, frame.get());
            EXPECT_LT(u64Last, +frame.get()->u64TimeStamp);
            u64Last = frame.get()->u64TimeStamp;
            EXPECT_NE(0U, numberOf(frame.get()->au8Data, frame.get()->u32Size));
        }
    };

    std::thread second(take);
    take();
    second.join();

    EXPECT_FALSE(isSubscribed());
}

TEST_F(VideoProcessorGetFrame, SimultaneousCallersAndABusyPublisherDoNotRace)
{
    const BusyPublisher publisher(0);
    const auto take = [&] {
        for (int i = 0; i < 20; ++i) {
            const uint32_t u32Before = publisher.m_u32Number;
            PVENC_FRAME_T frame;
            m_host.getFrame(frame);
            EXPECT_LE(u32Before, +frame.get()->u64TimeStamp);
        }
    };

    std::thread second(take);
    std::thread third(take);
    take();
    second.join();
    third.join();
}
