// Streaming from one camera: waiting, dequeuing, copying, queuing again.
#include <chrono>
#include <string>
#include <vector>

#include <sys/time.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "EventBus.h"
#include "Fault.h"
#include "LogCapture.h"
#include "V4L2.h"
#include "VideoFrameEvent.h"
#include "VirtualCamera.h"

namespace {

using Lines = std::vector<std::string>;

uint64_t wallClock()
{
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

std::string payload(const PVENC_FRAME_T& frame)
{
    const VENC_FRAME_T* pFrame = frame.get();
    return {reinterpret_cast<const char*>(pFrame->au8Data), pFrame->u32Size};
}

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

class V4L2Stream : public testing::Test
{
protected:
    V4L2Stream() : m_camera({"--keep", "100"}) {}

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

TEST_F(V4L2Stream, FrameCarriesThePictureBehindItsHeader)
{
    const uint64_t u64Before = wallClock();
    ASSERT_EQ(RET_SUCCESS, get());
    const uint64_t u64After = wallClock();

    const VENC_FRAME_T* pFrame = m_frame.get();
    EXPECT_LE(u64Before, +pFrame->u64TimeStamp);
    EXPECT_GE(u64After, +pFrame->u64TimeStamp);
    EXPECT_EQ(28U, +pFrame->u32Format);
    EXPECT_EQ(640U, +pFrame->u32Width);
    EXPECT_EQ(480U, +pFrame->u32Height);
    EXPECT_EQ(24U, m_frame.getDataOffset());
    EXPECT_EQ(m_camera.frames().at(0).strPicture, payload(m_frame));
}

TEST_F(V4L2Stream, FramesComeInOrderAndUnchanged)
{
    std::vector<std::string> vecPicture;
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(RET_SUCCESS, get());
        vecPicture.push_back(payload(m_frame));
        ASSERT_EQ(RET_SUCCESS, m_v4l2.releaseVideoStream());
    }

    const std::vector<VirtualCamera::Frame> vecProduced = m_camera.frames();
    ASSERT_LE(vecPicture.size(), vecProduced.size());
    for (size_t i = 0; i < vecPicture.size(); ++i) {
        EXPECT_EQ(vecProduced[i].strPicture, vecPicture[i]) << i;
    }
}

TEST_F(V4L2Stream, FrameIsPublishedBeforeTheCallReturns)
{
    ASSERT_EQ(RET_SUCCESS, get());

    EXPECT_EQ(std::vector<int32_t>{0}, m_subscriber.m_vecStream);
    EXPECT_EQ(m_frame.get(), m_subscriber.m_vecFrame.at(0).get()); // shared, not copied
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

/** A frame that counts as an empty buffer. */
class V4L2StreamEmptyBuffer : public V4L2Stream, public testing::WithParamInterface<const char*>
{
};

TEST_P(V4L2StreamEmptyBuffer, IsDroppedAndQueuedAgain)
{
    command(GetParam());
    startStream(0);
    m_camera.clearJournal();
    m_log.clear();

    EXPECT_EQ(RET_AGAIN, get());

    EXPECT_EQ(Lines{"[getVideoStream] [0] Ignoring empty buffer ...\n"}, messages());
    EXPECT_EQ("QBUF type=1 memory=1 index=0 = 0", m_camera.readJournal().back());
    EXPECT_EQ(nullptr, m_frame.get());
    EXPECT_TRUE(m_subscriber.m_vecFrame.empty());
    EXPECT_EQ(RET_SUCCESS, get());
}

INSTANTIATE_TEST_SUITE_P(Sizes, V4L2StreamEmptyBuffer,
                         testing::Values("bytes 0", "bytes 175", "bytes overflow", "broken"));

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

TEST_F(V4L2Stream, FrameOutlivesItsBuffersReturn)
{
    ASSERT_EQ(RET_SUCCESS, get());
    m_camera.command("freeze");

    ASSERT_EQ(RET_SUCCESS, m_v4l2.releaseVideoStream()); // the camera overwrites it

    EXPECT_EQ(m_camera.frames().at(0).strPicture, payload(m_frame));
}

TEST_F(V4L2Stream, SmallestFrameIsDelivered)
{
    m_camera.command("bytes 176 always");
    startStream(0);

    ASSERT_EQ(RET_SUCCESS, get());

    EXPECT_EQ(176U, +m_frame.get()->u32Size);
    EXPECT_EQ(1U, m_subscriber.m_vecFrame.size());
}

TEST_F(V4L2Stream, OtherStreamsDeliverAnySize)
{
    command("bytes 0");
    startStream(2);

    ASSERT_EQ(RET_SUCCESS, get());

    EXPECT_EQ(0U, +m_frame.get()->u32Size);
    EXPECT_EQ(std::vector<int32_t>{2}, m_subscriber.m_vecStream);
}

TEST_F(V4L2Stream, OverlongFrameOfAnotherStreamIsDropped)
{
    command("bytes overflow");
    startStream(2);

    EXPECT_EQ(RET_AGAIN, get());

    EXPECT_EQ(1, m_log.count("[debug] [videocapture/V4L2 ] [getVideoStream] [2] Ignoring empty "
                             "buffer ...\n"));
    EXPECT_TRUE(m_subscriber.m_vecFrame.empty());
}

TEST_F(V4L2Stream, FrameWithoutMemoryIsDropped)
{
    m_camera.command("bytes 5000 always");
    startStream(0);
    m_camera.clearJournal();
    m_log.clear();

    {
        const FaultScope fault("malloc=5024:1:ENOMEM"); // the header and the payload
        EXPECT_EQ(0, fault.result());
        EXPECT_EQ(RET_AGAIN, get());
        EXPECT_EQ(1U, faultHits());
    }

    EXPECT_EQ(Lines{"[getVideoStream] [0] Ignoring empty buffer ...\n"}, messages());
    EXPECT_EQ(1U, m_camera.count("QBUF "));
    EXPECT_TRUE(m_subscriber.m_vecFrame.empty());
    EXPECT_EQ(RET_SUCCESS, get());
}

TEST_F(V4L2Stream, EmptyBufferThatCannotBeQueuedIsTriedAgain)
{
    command("bytes 175");
    startStream(0);
    m_camera.command("fail QBUF ENODEV");
    m_log.clear();

    EXPECT_EQ(RET_AGAIN, get());

    EXPECT_EQ((Lines{"[getVideoStream] [0] Ignoring empty buffer ...\n",
                     "[releaseVideoStream] release buffer error!\n"}),
              messages());
}

TEST_F(V4L2Stream, FrameOutlivesBufferAndCamera)
{
    ASSERT_EQ(RET_SUCCESS, get());
    const PVENC_FRAME_T kept = m_frame;
    const std::string strPicture = m_camera.frames().at(0).strPicture;
    for (int i = 0; i < 4; ++i) { // both buffers are filled again
        ASSERT_EQ(RET_SUCCESS, m_v4l2.releaseVideoStream());
        ASSERT_EQ(RET_SUCCESS, get());
    }

    ASSERT_EQ(RET_SUCCESS, m_v4l2.uninit());

    EXPECT_EQ(strPicture, payload(kept));
}
