// A camera that streams, as V4L2 sees it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "EventBus.h"
#include "LogCapture.h"
#include "V4L2.h"
#include "VideoFrameEvent.h"
#include "VirtualCamera.h"

/** Keeps the frames that are published. */
class FrameSubscriber
{
public:
    FrameSubscriber()
    {
        EventBus<VideoFrameEvent>::subscribe(this, &FrameSubscriber::onFrame);
    }
    FrameSubscriber(const FrameSubscriber&) = delete;
    FrameSubscriber& operator=(const FrameSubscriber&) = delete;
    ~FrameSubscriber()
    {
        EventBus<VideoFrameEvent>::unsubscribe(this, &FrameSubscriber::onFrame);
    }

    int onFrame(Event* pEvent)
    {
        const auto& event = dynamic_cast<VideoFrameEvent&>(*pEvent);
        m_vecStream.push_back(event.m_nStream);
        m_vecFrame.push_back(event.m_frame);
        return 0;
    }

    std::vector<int32_t> m_vecStream;
    std::vector<PVENC_FRAME_T> m_vecFrame;
};

class V4L2StreamFixture : public testing::Test
{
protected:
    using Lines = std::vector<std::string>;

    V4L2StreamFixture() : m_camera({"--keep", "100"}) {}

    void SetUp() override
    {
        startStream(0);
    }

    void startStream(int32_t s32Stream)
    {
        ASSERT_EQ(RET_SUCCESS, m_v4l2.init(s32Stream));
        ASSERT_EQ(RET_SUCCESS, m_v4l2.streamOn());
        m_log.clear();
    }

    RET_E get()
    {
        return m_v4l2.getVideoStream(m_frame, 10000);
    }

    /** Give a command for the next frame, after the stream of before has had its last. */
    void command(const char* pCommand)
    {
        ASSERT_EQ(RET_SUCCESS, m_v4l2.uninit());
        m_camera.command(pCommand);
    }

    /** Stream from a camera that delivers nothing. */
    void startFrozenStream()
    {
        m_camera.command("freeze");
        startStream(0); // anew, without a frame that is there already
    }

    Lines messages() const
    {
        const std::string strBegin = "[debug] [videocapture/V4L2 ] ";
        Lines vecLine;
        for (const std::string& strLine : m_log.lines()) {
            EXPECT_EQ(strBegin, strLine.substr(0, strBegin.size()));
            vecLine.push_back(strLine.substr(strBegin.size()));
        }
        return vecLine;
    }

    VirtualCamera m_camera;
    LogCapture m_log;
    V4L2 m_v4l2;
    PVENC_FRAME_T m_frame;
    FrameSubscriber m_subscriber;
};
