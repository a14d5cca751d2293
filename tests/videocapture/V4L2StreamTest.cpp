// Streaming from one camera: waiting, dequeuing, queuing again.
#include <string>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "V4L2StreamFixture.h"

namespace {

using V4L2Stream = V4L2StreamFixture;

} // namespace

TEST_F(V4L2Stream, WaitsForAFrameAsLongAsItIsAskedTo)
{
    const CallJournal journal("poll");
    for (const int32_t s32Ms : {1, 999, 1500}) {
        (void)m_v4l2.getVideoStream(m_frame, s32Ms); // or none has come
        EXPECT_EQ(1U, CallJournal::count("poll " + std::to_string(s32Ms)));
    }
}

TEST_F(V4L2Stream, StreamOnQueuesEveryBufferFirst)
{
    ASSERT_EQ(RET_SUCCESS, m_v4l2.init(0));
    m_camera.clearJournal();

    EXPECT_EQ(RET_SUCCESS, m_v4l2.streamOn());

    const Lines vecCall = m_camera.readJournal();
    EXPECT_EQ((Lines{"QBUF type=1 memory=1 index=0 = 0", "QBUF type=1 memory=1 index=1 = 0",
                     "STREAMON type=1 = 0"}),
              Lines(vecCall.begin(), vecCall.begin() + 3));
}

TEST_F(V4L2Stream, StreamOnEndsAtTheFirstFailure)
{
    ASSERT_EQ(RET_SUCCESS, m_v4l2.init(0));
    m_camera.command("fail QBUF EINVAL 1 skip 1");
    m_camera.clearJournal();

    EXPECT_EQ(RET_FAILED, m_v4l2.streamOn());

    EXPECT_EQ(
        (Lines{"QBUF type=1 memory=1 index=0 = 0", "QBUF type=1 memory=1 index=1 = -1 EINVAL"}),
        m_camera.readJournal());
}

TEST_F(V4L2Stream, RefusedStreamOnFails)
{
    ASSERT_EQ(RET_SUCCESS, m_v4l2.init(0));
    m_log.clear();
    m_camera.command("fail STREAMON EIO");

    EXPECT_EQ(RET_FAILED, m_v4l2.streamOn());

    EXPECT_EQ(Lines{}, messages());
}

TEST_F(V4L2Stream, StreamOffSucceedsInSilence)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(RET_SUCCESS, m_v4l2.streamOff());

    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(Lines{}, messages());
}

TEST_F(V4L2Stream, RefusedStreamOffTellsTheSystemsError)
{
    m_camera.command("fail STREAMOFF EINVAL");

    testing::internal::CaptureStderr();
    EXPECT_EQ(RET_FAILED, m_v4l2.streamOff());

    EXPECT_EQ("VIDIOC_STREAMOFF error\n: Invalid argument\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(V4L2Stream, ClosedCameraRefusesInSilence)
{
    ASSERT_EQ(RET_SUCCESS, m_v4l2.uninit());

    testing::internal::CaptureStderr();
    EXPECT_EQ(RET_FAILED, m_v4l2.streamOn());
    EXPECT_EQ(RET_FAILED, m_v4l2.streamOff());
    EXPECT_EQ(RET_FAILED, m_v4l2.getVideoStream(m_frame, 10000));

    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(Lines{}, messages());
}

TEST_F(V4L2Stream, BufferStaysDequeuedUntilReleased)
{
    m_camera.clearJournal();
    ASSERT_EQ(RET_SUCCESS, get());
    EXPECT_EQ(0U, m_camera.count("QBUF "));
    const std::string strDequeued = m_camera.readJournal().back();
    const std::string strIndex = strDequeued.substr(strDequeued.find("index="), 7);

    EXPECT_EQ(RET_SUCCESS, m_v4l2.releaseVideoStream());

    EXPECT_EQ("QBUF type=1 memory=1 " + strIndex + " = 0", m_camera.readJournal().back());
}

TEST_F(V4L2Stream, RefusedReleaseIsLogged)
{
    ASSERT_EQ(RET_SUCCESS, get());
    m_camera.command("fail QBUF EINVAL");

    EXPECT_EQ(RET_FAILED, m_v4l2.releaseVideoStream());

    EXPECT_EQ(Lines{"[releaseVideoStream] release buffer error!\n"}, messages());
}

TEST_F(V4L2Stream, FourthTimeoutInARowFailsAndBeginsTheCountAnew)
{
    startFrozenStream();

    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
        EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
        EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
        EXPECT_EQ(RET_FAILED, m_v4l2.getVideoStream(m_frame, 1));
    }

    EXPECT_EQ(Lines{}, messages());
    EXPECT_EQ(nullptr, m_frame.get());
}

TEST_F(V4L2Stream, FrameEndsTheRowOfTimeouts)
{
    startFrozenStream();
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));

    m_camera.command("thaw");
    EXPECT_EQ(RET_SUCCESS, get());

    startFrozenStream();
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
    EXPECT_EQ(RET_FAILED, m_v4l2.getVideoStream(m_frame, 1));
}

TEST_F(V4L2Stream, DroppedFrameDoesNotEndTheRowOfTimeouts)
{
    startFrozenStream();
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 1));

    m_camera.command("bytes 175");
    m_camera.command("thaw");
    EXPECT_EQ(RET_AGAIN, get());

    startFrozenStream();
    EXPECT_EQ(RET_FAILED, m_v4l2.getVideoStream(m_frame, 1));
}

TEST_F(V4L2Stream, NegativeWaitLooksAtTheDriverAtOnce)
{
    startFrozenStream();

    EXPECT_EQ(RET_AGAIN, m_v4l2.getVideoStream(m_frame, -1));

    EXPECT_EQ(1U, m_camera.count("DQBUF type=1 memory=1 = -1 EAGAIN"));
}

TEST_F(V4L2Stream, NothingToDequeueIsToldAndTriedAgain)
{
    m_camera.command("fail DQBUF EAGAIN");

    EXPECT_EQ(RET_AGAIN, get());

    EXPECT_EQ(Lines{"[getVideoStream] VIDIOC_DQBUF EAGAIN!\n"}, messages());
    EXPECT_EQ(RET_SUCCESS, get());
}

TEST_F(V4L2Stream, InterruptedDequeueIsRepeated)
{
    m_camera.command("fail DQBUF EINTR 3");

    EXPECT_EQ(RET_SUCCESS, get());

    EXPECT_EQ(Lines{}, messages());
}

TEST_F(V4L2Stream, InputErrorIsToldTwice)
{
    m_camera.command("fail DQBUF EIO");

    EXPECT_EQ(RET_FAILED, get());

    EXPECT_EQ((Lines{"[getVideoStream] VIDIOC_DQBUF EIO!\n",
                     "[getVideoStream] [0]VIDIOC_DQBUF FAILED(errno:5)!\n"}),
              messages());
}

TEST_F(V4L2Stream, UnpluggedCameraFailsTheDequeue)
{
    m_camera.command("unplug");

    EXPECT_EQ(RET_FAILED, get());

    EXPECT_EQ(Lines{"[getVideoStream] [0]VIDIOC_DQBUF FAILED(errno:19)!\n"}, messages());
}

TEST_F(V4L2Stream, BufferThatWasNeverMappedAborts)
{
    m_camera.command("index 2");

    EXPECT_DEATH((void)get(), "RET_E V4L2::getVideoStream\\(PVENC_FRAME_T&, int32_t\\): "
                              "Assertion `buf.index < n_buffers' failed.");
}

// As the kernel's driver lets a camera go that is pulled while both buffers are queued.
TEST_F(V4L2Stream, CameraThatGoesHandsOutItsBuffersFirst)
{
    startFrozenStream();
    m_camera.clearJournal();

    m_camera.command("unplug slowly 600000");
    EXPECT_EQ(RET_AGAIN, get());
    EXPECT_EQ(RET_AGAIN, get());
    EXPECT_EQ(RET_TIMEOUT, m_v4l2.getVideoStream(m_frame, 0));
    m_camera.command("unplug");
    EXPECT_EQ(RET_FAILED, get());

    EXPECT_EQ(
        (Lines{"DQBUF type=1 memory=1 = 0 index=0 bytesused=0 sequence=0 flags=0x12041",
               "QBUF type=1 memory=1 index=0 = -1 ENODEV",
               "DQBUF type=1 memory=1 = 0 index=1 bytesused=0 sequence=0 flags=0x12041",
               "QBUF type=1 memory=1 index=1 = -1 ENODEV", "DQBUF type=1 memory=1 = -1 ENODEV"}),
        m_camera.readJournal());
    EXPECT_EQ((Lines{"[getVideoStream] [0] Ignoring empty buffer ...\n",
                     "[releaseVideoStream] release buffer error!\n",
                     "[getVideoStream] [0] Ignoring empty buffer ...\n",
                     "[releaseVideoStream] release buffer error!\n",
                     "[getVideoStream] [0]VIDIOC_DQBUF FAILED(errno:19)!\n"}),
              messages());
    EXPECT_TRUE(m_subscriber.m_vecFrame.empty());
}

TEST_F(V4L2Stream, DequeueAsksForNoBufferInParticular)
{
    m_camera.clearJournal();

    for (int i = 0; i < 3; ++i) { // the answers of one are no arguments of the next
        ASSERT_EQ(RET_SUCCESS, get());
        ASSERT_EQ(RET_SUCCESS, m_v4l2.releaseVideoStream());
    }

    EXPECT_EQ(3U, m_camera.count("DQBUF type=1 memory=1 = 0"));
}
