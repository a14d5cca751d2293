// The measuring sequence and the idle print event.
#include <cstring>
#include <typeinfo>

#include <sys/syscall.h>
#include <unistd.h>

#include "EventBus.h"
#include "IdlePrintEvent.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "SetExposureEvent.h"
#include "VisionHost.h"

namespace {

using Lines = std::vector<std::string>;

int32_t thisThread()
{
    return static_cast<int32_t>(syscall(SYS_gettid));
}

class VideoProcessorMeasure : public VisionHost
{
protected:
    VideoProcessorMeasure()
    {
        EventBus<SetExposureEvent>::subscribe(this, &VideoProcessorMeasure::onExposure);
        EventBus<MoveLaserEvent>::subscribe(this, &VideoProcessorMeasure::onMove);
        EventBus<MeasureEvent>::subscribe(this, &VideoProcessorMeasure::onMeasure);
    }
    ~VideoProcessorMeasure() override
    {
        EventBus<SetExposureEvent>::unsubscribe(this, &VideoProcessorMeasure::onExposure);
        EventBus<MoveLaserEvent>::unsubscribe(this, &VideoProcessorMeasure::onMove);
        EventBus<MeasureEvent>::unsubscribe(this, &VideoProcessorMeasure::onMeasure);
    }

    void SetUp() override
    {
        load("test_plugin");
        startCapture();
        plugin().vecCall.clear();
        plugin().s32Exposure = 77;
        plugin().fX = 1.5F;
        plugin().fY = -2.25F;
        plugin().fMeasure = 0.125F;
    }

    RET_E measure()
    {
        return m_host.measure(&m_fResult);
    }

    int onExposure(Event* pEvent)
    {
        const auto& event = dynamic_cast<SetExposureEvent&>(*pEvent);
        m_fResultAtExposure = m_fResult;
        note("exposure " + std::to_string(event.m_nStream) + " " +
             std::to_string(event.m_nExposure));
        return 0;
    }
    int onMove(Event* pEvent)
    {
        const auto& event = dynamic_cast<MoveLaserEvent&>(*pEvent);
        note("move " + std::to_string(event.m_fX) + " " + std::to_string(event.m_fY));
        const std::vector<VirtualCamera::Frame> vecFrame = m_camera.frames();
        m_u32LatestAtMove = vecFrame.back().u32Number;
        return 0;
    }
    int onMeasure(Event* pEvent)
    {
        note("measure " + std::to_string(dynamic_cast<MeasureEvent&>(*pEvent).m_fValue));
        return 0;
    }

    void note(const std::string& strEvent)
    {
        EXPECT_EQ(thisThread(), m_s32Thread); // published by the caller of measure
        m_vecEvent.push_back(strEvent);
    }

    const int32_t m_s32Thread = thisThread();
    float m_fResultAtExposure = 9;
    float m_fResult = 9;
    Lines m_vecEvent;
    uint32_t m_u32LatestAtMove = 0;
};

} // namespace

TEST_F(VideoProcessorMeasure, PublishesExposureMoveAndMeasureInThisOrder)
{
    EXPECT_EQ(RET_SUCCESS, measure());

    EXPECT_EQ((Lines{"exposure 0 77", "move 1.500000 -2.250000", "measure 0.125000"}), m_vecEvent);
    EXPECT_EQ(0.125F, m_fResult);
    EXPECT_EQ((Lines{"setExposure", "findPos", "autoFocus"}), plugin().names());
    EXPECT_EQ(0, plugin().s32ExposureBefore);
    EXPECT_EQ(0.0F, plugin().fXBefore);
    EXPECT_EQ(0.0F, plugin().fYBefore);
    EXPECT_EQ("--set-ctrl=exposure_auto=1\n--set-ctrl=exposure_absolute=77\n", m_tool.calls());
}

TEST_F(VideoProcessorMeasure, ResultIsZeroUntilItIsMeasured)
{
    EXPECT_EQ(RET_SUCCESS, measure());

    EXPECT_EQ(0.0F, m_fResultAtExposure);
}

TEST_F(VideoProcessorMeasure, PluginGetsWholeFramesOnTheCallersThread)
{
    ASSERT_EQ(RET_SUCCESS, measure());

    const std::vector<PluginCall> vecCall = plugin().calls();
    ASSERT_EQ(3U, vecCall.size());
    EXPECT_EQ(m_s32Thread, vecCall[0].s32Tid);
    for (size_t i = 1; i < 3; ++i) {
        EXPECT_EQ(m_s32Thread, vecCall[i].s32Tid);
        EXPECT_EQ(640U, vecCall[i].u32Width);
        EXPECT_EQ(480U, vecCall[i].u32Height);
        EXPECT_NE(0U, numberOf(vecCall[i].vecData.data(), vecCall[i].u32Size)) << i;
    }
}

TEST_F(VideoProcessorMeasure, FocusIsJudgedOnAFrameTakenAfterTheMove)
{
    ASSERT_EQ(RET_SUCCESS, measure());

    const std::vector<PluginCall> vecCall = plugin().calls();
    ASSERT_EQ(3U, vecCall.size());
    const uint32_t u32Found = numberOf(vecCall[1].vecData.data(), vecCall[1].u32Size);
    const uint32_t u32Judged = numberOf(vecCall[2].vecData.data(), vecCall[2].u32Size);
    EXPECT_GE(m_u32LatestAtMove, u32Found);
    EXPECT_LT(u32Found, u32Judged);
}

TEST_F(VideoProcessorMeasure, WithoutASpotOnlyTheExposureIsPublished)
{
    plugin().nFindPosResult = 1;

    EXPECT_EQ(RET_FAILED, measure());

    EXPECT_EQ(Lines{"exposure 0 77"}, m_vecEvent);
    EXPECT_EQ(0.0F, m_fResult);
    EXPECT_EQ((Lines{"setExposure", "findPos"}), plugin().names());
}

TEST_F(VideoProcessorMeasure, WithoutFocusThereIsNoMeasure)
{
    plugin().nAutoFocusResult = 1;

    EXPECT_EQ(RET_FAILED, measure());

    EXPECT_EQ((Lines{"exposure 0 77", "move 1.500000 -2.250000"}), m_vecEvent);
    EXPECT_EQ(0.0F, m_fResult);
}

TEST_F(VideoProcessorMeasure, ResultsBelowZeroAreSuccesses)
{
    plugin().nFindPosResult = -1;
    plugin().nAutoFocusResult = -1;

    EXPECT_EQ(RET_SUCCESS, measure());

    EXPECT_EQ((Lines{"exposure 0 77", "move 1.500000 -2.250000", "measure 0.125000"}), m_vecEvent);
}

TEST_F(VideoProcessorMeasure, CaptureGoesOnAfterAFailure)
{
    plugin().nFindPosResult = 1;
    ASSERT_EQ(RET_FAILED, measure());
    plugin().nFindPosResult = 0;

    EXPECT_EQ(RET_SUCCESS, measure());
}

TEST_F(VideoProcessorMeasure, IdlePrintHandsTheEventsFieldsOver)
{
    std::vector<int32_t> vecValue;
    int32_t s32First = 0;
    int32_t s32Second = 0;
    IdlePrintEvent event(&vecValue, &s32First, &s32Second);

    EXPECT_EQ(0, m_host.onIdlePrint(&event));

    const std::vector<PluginCall> vecCall = plugin().calls();
    ASSERT_EQ(1U, vecCall.size());
    EXPECT_EQ("easyFun", vecCall[0].strName);
    EXPECT_EQ(m_s32Thread, vecCall[0].s32Tid);
    EXPECT_EQ(640U, vecCall[0].u32Width);
    EXPECT_EQ(480U, vecCall[0].u32Height);
    EXPECT_NE(0U, numberOf(vecCall[0].vecData.data(), vecCall[0].u32Size));
    EXPECT_EQ(&s32First, vecCall[0].apOther[0]); // second, third, first field of the event
    EXPECT_EQ(&s32Second, vecCall[0].apOther[1]);
    EXPECT_EQ(&vecValue, vecCall[0].apOther[2]);
}

TEST_F(VideoProcessorMeasure, IdlePrintEventsAreFollowedFromStartToStop)
{
    std::vector<int32_t> vecValue;
    int32_t s32First = 0;
    int32_t s32Second = 0;
    IdlePrintEvent event(&vecValue, &s32First, &s32Second);

    EventBus<IdlePrintEvent>::publish(event);
    EXPECT_EQ(Lines{}, plugin().names());

    EXPECT_EQ(RET_SUCCESS, m_host.start());
    EventBus<IdlePrintEvent>::publish(event);
    EXPECT_EQ(Lines{"easyFun"}, plugin().names());

    EXPECT_EQ(RET_SUCCESS, m_host.stop());
    EventBus<IdlePrintEvent>::publish(event);
    EXPECT_EQ(Lines{"easyFun"}, plugin().names());
}

TEST_F(VideoProcessorMeasure, HandlersTakeNoOtherEvent)
{
    Event event;

    EXPECT_THROW((void)m_host.onIdlePrint(&event), std::bad_cast);
    EXPECT_THROW((void)m_host.onVideoFrame(&event), std::bad_cast);
}
