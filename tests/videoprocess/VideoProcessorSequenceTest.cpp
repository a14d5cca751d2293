// Which frame each step of a measurement gets, and what has happened before it.
#include <atomic>
#include <thread>

#include "AllocatedBytes.h"
#include "CallJournal.h"
#include "EventBus.h"
#include "Eventually.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "SetExposureEvent.h"
#include "VideoFrameEvent.h"
#include "VisionHost.h"

namespace {

using Lines = std::vector<std::string>;

void publishFrame(uint32_t u32Number)
{
    VENC_FRAME_T header{};
    header.u64TimeStamp = u32Number;
    header.u32Width = u32Number; // what the plug-in is given
    header.u32Size = 1;
    PVENC_FRAME_T frame = makeFrame(header, "x");
    VideoFrameEvent event(0, frame);
    EventBus<VideoFrameEvent>::publish(event);
}

/** Publishes numbered frames of stream 0 on a thread of its own, and waits for a host that looks.
 */
class NumberedFrames
{
public:
    NumberedFrames()
        : m_thread([this] {
              while (!m_bQuit) {
                  publishFrame(++m_u32Begun);
                  m_u32Done = +m_u32Begun;
              }
          })
    {
    }
    NumberedFrames(const NumberedFrames&) = delete;
    NumberedFrames& operator=(const NumberedFrames&) = delete;
    ~NumberedFrames()
    {
        m_bQuit = true;
        m_thread.join();
    }

    /** @return a number above that of every frame so far and below that of every frame to come */
    uint32_t pass() const
    {
        const uint32_t u32Now = m_u32Begun;
        EXPECT_TRUE(eventually([this, u32Now] { return m_u32Done > u32Now + 1; }));
        return u32Now + 1;
    }

private:
    std::atomic<uint32_t> m_u32Begun{0};
    std::atomic<uint32_t> m_u32Done{0};
    std::atomic<bool> m_bQuit{false};
    std::thread m_thread;
};

/** Notes what was called before each event, and lets frames pass at the first two. */
class VideoProcessorSequence : public VisionHost
{
protected:
    VideoProcessorSequence()
    {
        EventBus<SetExposureEvent>::subscribe(this, &VideoProcessorSequence::onExposure);
        EventBus<MoveLaserEvent>::subscribe(this, &VideoProcessorSequence::onMove);
        EventBus<MeasureEvent>::subscribe(this, &VideoProcessorSequence::onMeasure);
    }
    ~VideoProcessorSequence() override
    {
        EventBus<SetExposureEvent>::unsubscribe(this, &VideoProcessorSequence::onExposure);
        EventBus<MoveLaserEvent>::unsubscribe(this, &VideoProcessorSequence::onMove);
        EventBus<MeasureEvent>::unsubscribe(this, &VideoProcessorSequence::onMeasure);
    }

    void SetUp() override
    {
        load("test_plugin");
        plugin().vecCall.clear();
    }

    int onExposure(Event* /*pEvent*/)
    {
        m_vecAtExposure = plugin().names();
        m_u32AtExposure = (nullptr == m_pFrames) ? 0 : m_pFrames->pass();
        return 0;
    }
    int onMove(Event* /*pEvent*/)
    {
        m_vecAtMove = plugin().names();
        m_u32AtMove = (nullptr == m_pFrames) ? 0 : m_pFrames->pass();
        return 0;
    }
    int onMeasure(Event* /*pEvent*/)
    {
        m_vecAtMeasure = plugin().names();
        return 0;
    }

    std::unique_ptr<NumberedFrames> m_pFrames;
    Lines m_vecAtExposure;
    Lines m_vecAtMove;
    Lines m_vecAtMeasure;
    uint32_t m_u32AtExposure = 0;
    uint32_t m_u32AtMove = 0;
};

} // namespace

TEST_F(VideoProcessorSequence, SpotIsLookedForInTheFrameFromBeforeTheExposureAndFocusBehindTheMove)
{
    m_pFrames = std::make_unique<NumberedFrames>();
    const uint32_t u32Before = m_pFrames->pass();
    float fResult = 0;

    EXPECT_EQ(RET_SUCCESS, m_host.measure(&fResult));

    const std::vector<PluginCall> vecCall = plugin().calls();
    ASSERT_EQ(3U, vecCall.size());
    const uint32_t u32Found = vecCall[1].u32Width;
    const uint32_t u32Judged = vecCall[2].u32Width;
    EXPECT_LT(u32Before, u32Found);
    EXPECT_GE(m_u32AtExposure, u32Found) << "a frame of its own for the spot";
    EXPECT_LT(m_u32AtMove, u32Judged) << "a frame from before the move";
    m_pFrames.reset();
}

TEST_F(VideoProcessorSequence, EachEventFollowsTheCallThatItTellsOf)
{
    m_pFrames = std::make_unique<NumberedFrames>();
    float fResult = 0;

    EXPECT_EQ(RET_SUCCESS, m_host.measure(&fResult));

    EXPECT_EQ((Lines{"setExposure"}), m_vecAtExposure);
    EXPECT_EQ((Lines{"setExposure", "findPos"}), m_vecAtMove);
    EXPECT_EQ((Lines{"setExposure", "findPos", "autoFocus"}), m_vecAtMeasure);
    m_pFrames.reset();
}

TEST_F(VideoProcessorSequence, PluginIsAskedForNothingBeforeTheFirstFrame)
{
    float fResult = 0;
    std::atomic<bool> bDone{false};
    const CallJournal journal("select");
    std::thread measurer([this, &fResult, &bDone] {
        EXPECT_EQ(RET_SUCCESS, m_host.measure(&fResult));
        bDone = true;
    });
    EXPECT_TRUE(eventually([] { return 0 < journalCount(); })); // it waits for the frame

    EXPECT_EQ(Lines{}, plugin().names());

    uint32_t u32Frame = 0;
    EXPECT_TRUE(eventually([&bDone, &u32Frame] {
        publishFrame(++u32Frame);
        return bDone.load();
    }));
    measurer.join();
}

TEST_F(VideoProcessorSequence, FrameFromBeforeTheCallIsNotTaken)
{
    VENC_FRAME_T header{};
    header.u64TimeStamp = 1;
    PVENC_FRAME_T early = makeFrame(header, "");
    VideoFrameEvent event(0, early);
    EXPECT_EQ(0, m_host.onVideoFrame(&event));
    PVENC_FRAME_T frame;
    const CallJournal journal("select");
    std::thread waiter([this, &frame] { m_host.getFrame(frame); });
    const bool bWaits = eventually([] { return 0 < journalCount(); });

    publishFrame(2);

    waiter.join();
    EXPECT_TRUE(bWaits);
    EXPECT_EQ(2U, +frame.get()->u64TimeStamp);
}

TEST_F(VideoProcessorSequence, FramesThatCameDuringTheWaitAreFreed)
{
    const uint32_t u32Large = 1 << 20;
    const std::string strData(u32Large, 'x');
    VENC_FRAME_T header{};
    header.u32Size = u32Large;
    PVENC_FRAME_T frame;
    const CallJournal journal("select");
    std::thread waiter([this, &frame] { m_host.getFrame(frame); });
    EXPECT_TRUE(eventually([] { return 0 < journalCount(); }));
    const size_t uBefore = allocatedBytes();
    for (int i = 0; i < 3; ++i) {
        PVENC_FRAME_T large = makeFrame(header, strData.data());
        VideoFrameEvent event(0, large);
        EventBus<VideoFrameEvent>::publish(event);
    }
    waiter.join();
    EXPECT_EQ(u32Large, +frame.get()->u32Size);

    frame = PVENC_FRAME_T();

    EXPECT_LT(allocatedBytes(), uBefore + u32Large);
}

TEST_F(VideoProcessorSequence, OfSeveralFramesTheFirstIsTaken)
{
    for (uint32_t u32Round = 0; u32Round < 30; ++u32Round) {
        PVENC_FRAME_T frame;
        const CallJournal journal("select");
        std::thread waiter([this, &frame] { m_host.getFrame(frame); });
        EXPECT_TRUE(eventually([] { return 0 < journalCount(); })); // it listens, and sleeps

        for (uint32_t u32Number = 1; u32Number <= 5; ++u32Number) {
            publishFrame(u32Number);
        }

        waiter.join();
        ASSERT_EQ(1U, +frame.get()->u64TimeStamp) << u32Round;
    }
}

TEST_F(VideoProcessorSequence, FrameIsLookedForEveryTwentyMilliseconds)
{
    PVENC_FRAME_T frame;
    const CallJournal journal("select");
    std::thread waiter([this, &frame] { m_host.getFrame(frame); });

    EXPECT_TRUE(eventually([] { return 3 <= journalCount(); }));
    publishFrame(1);

    waiter.join();
    const Lines vecCall = CallJournal::lines();
    EXPECT_EQ(Lines(vecCall.size(), "select 0.020000"), vecCall);
}
