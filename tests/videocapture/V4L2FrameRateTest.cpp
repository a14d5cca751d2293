// The frame rate that a camera is asked for.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "V4L2.h"
#include "VirtualCamera.h"

namespace {

using Lines = std::vector<std::string>;

class V4L2FrameRate : public testing::Test
{
protected:
    /** What setFrameRate logged during an init that succeeded in any case. */
    Lines linesOfInit()
    {
        EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));
        const std::string strBegin = "[debug] [videocapture/V4L2 ] [setFrameRate] ";
        Lines vecLine;
        for (const std::string& strLine : m_log.lines()) {
            if (0 == strLine.compare(0, strBegin.size(), strBegin)) {
                vecLine.push_back(strLine.substr(strBegin.size()));
            }
        }
        return vecLine;
    }

    /** The calls that set a rate. */
    Lines asked() const
    {
        Lines vecCall;
        for (const std::string& strCall : m_camera.readJournal()) {
            if (std::string::npos != strCall.find("S_PARM ")) {
                vecCall.push_back(strCall.substr(0, strCall.find(" =")));
            }
        }
        return vecCall;
    }

    void expectStream()
    {
        PVENC_FRAME_T frame;
        EXPECT_EQ(RET_SUCCESS, m_v4l2.streamOn());
        EXPECT_EQ(RET_SUCCESS, m_v4l2.getVideoStream(frame, 10000));
    }

    VirtualCamera m_camera;
    LogCapture m_log;
    V4L2 m_v4l2;
};

} // namespace

TEST_F(V4L2FrameRate, CameraThatCannotTellItsRateStreams)
{
    m_camera.command("fail G_PARM ENOTTY");

    EXPECT_EQ(
        (Lines{"[0] set frame rate to 25\n", "Unable to query that the FPS change is supported\n"}),
        linesOfInit());

    EXPECT_EQ(Lines{}, asked());
    expectStream();
}

TEST_F(V4L2FrameRate, CameraWithoutTimePerFrameStreams)
{
    m_camera.command("timeperframe off");

    EXPECT_EQ((Lines{"[0] set frame rate to 25\n",
                     "Setting FPS on the capture device is not supported, fallback to software "
                     "framedropping\n"}),
              linesOfInit());

    EXPECT_EQ(Lines{}, asked());
    expectStream();
}

TEST_F(V4L2FrameRate, CameraThatRefusesTheRateStreams)
{
    m_camera.command("fail S_PARM EINVAL");

    EXPECT_EQ((Lines{"[0] set frame rate to 25\n", "Unable to set the FPS\n"}), linesOfInit());

    EXPECT_EQ(Lines{"S_PARM type=1 timeperframe=1/25"}, asked());
    expectStream();
}

// A camera that grants more than was asked is asked for all it can.
TEST_F(V4L2FrameRate, DeliberateFasterCameraIsAskedFor255)
{
    m_camera.command("coerce 30");

    EXPECT_EQ((Lines{"[0] set frame rate to 25\n", "FPS coerced ......: from 25 to 30\n"}),
              linesOfInit());

    EXPECT_EQ((Lines{"S_PARM type=1 timeperframe=1/25", "S_PARM type=1 timeperframe=1/255"}),
              asked());
    expectStream();
}

// What the driver answered to one request is no argument of the next.
TEST_F(V4L2FrameRate, NothingButTheRateIsAsked)
{
    m_camera.command("coerce 30");
    (void)linesOfInit();

    EXPECT_EQ(1U, m_camera.count("S_PARM type=1 timeperframe=1/25 = 0"));
    EXPECT_EQ(1U, m_camera.count("S_PARM type=1 timeperframe=1/255 = 0"));
}

TEST_F(V4L2FrameRate, FasterCameraThatRefuses255Streams)
{
    m_camera.command("coerce 30");
    m_camera.command("fail S_PARM EIO 1 skip 1");

    EXPECT_EQ((Lines{"[0] set frame rate to 25\n", "FPS coerced ......: from 25 to 30\n",
                     "Unable to set the FPS\n"}),
              linesOfInit());

    expectStream();
}

TEST_F(V4L2FrameRate, SlowerCameraIsAskedOnce)
{
    m_camera.command("coerce 15");

    EXPECT_EQ((Lines{"[0] set frame rate to 25\n", "FPS coerced ......: from 25 to 15\n"}),
              linesOfInit());

    EXPECT_EQ(Lines{"S_PARM type=1 timeperframe=1/25"}, asked());
}

TEST_F(V4L2FrameRate, HighestNumberAsksFor255)
{
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));
    m_camera.command("coerce 30");
    m_camera.clearJournal();

    EXPECT_EQ(RET_SUCCESS, m_v4l2.setFrameRate(0xFFFFFFFF));

    EXPECT_EQ(Lines{"S_PARM type=1 timeperframe=1/255"}, asked());
    EXPECT_EQ(1, m_log.count("[debug] [videocapture/V4L2 ] [setFrameRate] [0] set frame rate to "
                             "4294967295\n"));
}

TEST_F(V4L2FrameRate, WhateverTheCameraAnswersIsASuccess)
{
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));

    EXPECT_EQ(RET_SUCCESS, m_v4l2.setFrameRate(25));
    for (const char* pCommand : {"fail G_PARM ENOTTY", "fail S_PARM EINVAL", "coerce 15",
                                 "coerce 30", "timeperframe off"}) {
        m_camera.command(pCommand);
        EXPECT_EQ(RET_SUCCESS, m_v4l2.setFrameRate(25)) << pCommand;
    }
}

TEST_F(V4L2FrameRate, ClosedCameraSucceedsAllTheSame)
{
    EXPECT_EQ(RET_SUCCESS, m_v4l2.setFrameRate(10));

    EXPECT_EQ(1, m_log.count("[debug] [videocapture/V4L2 ] [setFrameRate] Unable to query that "
                             "the FPS change is supported\n"));
}
