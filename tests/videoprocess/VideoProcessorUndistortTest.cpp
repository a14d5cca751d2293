// Correcting a frame's lens distortion.
#include <cstdlib>
#include <cstring>

#include "Fault.h"
#include "FrameConsumer.h"
#include "VisionHost.h"

namespace {

class VideoProcessorUndistort : public VisionHost
{
protected:
    void SetUp() override
    {
        load("test_plugin");
        plugin().vecCall.clear();
        VENC_FRAME_T header{};
        header.u32Size = 3;
        header.u64TimeStamp = 0x123456789ABCDEFULL;
        header.u32Format = 28;
        header.u32Width = 640;
        header.u32Height = 480;
        m_in = makeFrame(header, "raw");
        plugin().undistorted = {9, 320, 240, m_au8Corrected};
    }

    uint8_t m_au8Corrected[9] = {'c', 'o', 'r', 'r', 'e', 'c', 't', 'e', 'd'};
    PVENC_FRAME_T m_in;
    PVENC_FRAME_T m_out;
};

} // namespace

TEST_F(VideoProcessorUndistort, CorrectedPictureBecomesAFrameOfItsOwn)
{
    m_host.undistort(m_in, m_out);

    const VENC_FRAME_T* pOut = m_out.get();
    ASSERT_NE(nullptr, pOut);
    EXPECT_NE(m_in.get(), pOut);
    EXPECT_EQ(9U, +pOut->u32Size);
    EXPECT_EQ(0x123456789ABCDEFULL, +pOut->u64TimeStamp);
    EXPECT_EQ(28U, +pOut->u32Format);
    EXPECT_EQ(320U, +pOut->u32Width);
    EXPECT_EQ(240U, +pOut->u32Height);
    EXPECT_EQ(24U, m_out.getDataOffset());
    EXPECT_EQ(0, memcmp(pOut->au8Data, "corrected", 9));
    memset(m_au8Corrected, 0, sizeof(m_au8Corrected)); // the plug-in's memory is not shared
    EXPECT_EQ(0, memcmp(pOut->au8Data, "corrected", 9));
}

TEST_F(VideoProcessorUndistort, PluginGetsTheFramesHeaderAndPayload)
{
    m_host.undistort(m_in, m_out);

    const std::vector<PluginCall> vecCall = plugin().calls();
    ASSERT_EQ(1U, vecCall.size());
    EXPECT_EQ(3U, vecCall[0].u32Size);
    EXPECT_EQ(640U, vecCall[0].u32Width);
    EXPECT_EQ(480U, vecCall[0].u32Height);
    EXPECT_EQ((std::vector<uint8_t>{'r', 'a', 'w'}), vecCall[0].vecData);
}

TEST_F(VideoProcessorUndistort, FailureSharesTheFrame)
{
    for (const int nResult : {1, -1}) {
        plugin().nUndistortResult = nResult;
        m_out = PVENC_FRAME_T();

        m_host.undistort(m_in, m_out);

        EXPECT_EQ(m_in.get(), m_out.get()) << nResult;
    }
}

TEST_F(VideoProcessorUndistort, DeliberateEmptyPictureThatCountsAsSuccessLeavesTheOutputAsItIs)
{
    const FRAME_PROCESS_UNDISTORT_T aRecord[] = {
        {0, 320, 240, m_au8Corrected}, {-9, 320, 240, m_au8Corrected},
        {9, 0, 240, m_au8Corrected},   {9, -320, 240, m_au8Corrected},
        {9, 320, 0, m_au8Corrected},   {9, 320, -240, m_au8Corrected}};
    for (const FRAME_PROCESS_UNDISTORT_T& record : aRecord) {
        plugin().undistorted = record;
        m_host.undistort(m_in, m_out);
        EXPECT_EQ(nullptr, m_out.get()) << record.s32Size;
    }

    PVENC_FRAME_T kept(static_cast<VENC_FRAME_T*>(calloc(1, 24)));
    const VENC_FRAME_T* pBefore = kept.get();
    m_host.undistort(m_in, kept);

    EXPECT_EQ(pBefore, kept.get());
}

TEST_F(VideoProcessorUndistort, PictureOfOnePixelIsAPicture)
{
    plugin().undistorted = {1, 1, 1, m_au8Corrected};

    m_host.undistort(m_in, m_out);

    const VENC_FRAME_T* pOut = m_out.get();
    ASSERT_NE(nullptr, pOut);
    EXPECT_EQ(1U, +pOut->u32Size);
    EXPECT_EQ(1U, +pOut->u32Width);
    EXPECT_EQ(1U, +pOut->u32Height);
    EXPECT_EQ('c', pOut->au8Data[0]);
}

TEST_F(VideoProcessorUndistort, PictureWithoutDataOrMemorySharesTheFrame)
{
    plugin().undistorted = {9, 320, 240, nullptr};
    m_host.undistort(m_in, m_out);
    EXPECT_EQ(m_in.get(), m_out.get());

    m_out = PVENC_FRAME_T();
    plugin().undistorted = {9, 320, 240, m_au8Corrected};
    const FaultScope fault("malloc=33:1:ENOMEM"); // the header and the payload
    ASSERT_EQ(0, fault.result());
    m_host.undistort(m_in, m_out);
    EXPECT_EQ(1U, faultHits());
    EXPECT_EQ(m_in.get(), m_out.get());
}

TEST_F(VideoProcessorUndistort, EmptyHolderStaysEmpty)
{
    PVENC_FRAME_T empty;

    m_host.undistort(empty, m_out);

    EXPECT_EQ(nullptr, m_out.get());
    EXPECT_TRUE(plugin().calls().empty());
}

TEST_F(VideoProcessorUndistort, RunsOnTheCaptureThread)
{
    FrameConsumer consumer;
    std::vector<PVENC_FRAME_T> vecOut; // capture thread, then this one
    consumer.m_onFrame = [&](VideoFrameEvent& event) {
        PVENC_FRAME_T out;
        m_host.undistort(event.m_frame, out);
        vecOut.push_back(out);
    };
    startCapture();
    ASSERT_EQ(RET_SUCCESS, VideoCapturer::getInstance().registerConsumer(&consumer));
    ASSERT_TRUE(consumer.waitForMore(3));
    ASSERT_EQ(RET_SUCCESS, VideoCapturer::getInstance().cancelConsumer(&consumer));

    ASSERT_EQ(vecOut.size(), plugin().calls().size());
    for (size_t i = 0; i < vecOut.size(); ++i) {
        const PluginCall call = plugin().calls()[i];
        EXPECT_EQ(9U, +vecOut[i].get()->u32Size);
        EXPECT_NE(0U, numberOf(call.vecData.data(), call.u32Size));
    }
    EXPECT_EQ("videocapture0", consumer.thread());
}
