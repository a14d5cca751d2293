// The frames of one camera: what is copied and handed on, and what is dropped.
#include <string>
#include <vector>

#include <sys/time.h>

#include <gtest/gtest.h>

#include "Fault.h"
#include "V4L2StreamFixture.h"

namespace {

using V4L2Frame = V4L2StreamFixture;

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

/** A frame that counts as an empty buffer. */
class V4L2FrameEmptyBuffer : public V4L2StreamFixture,
                             public testing::WithParamInterface<const char*>
{
};

} // namespace

TEST_F(V4L2Frame, FrameCarriesThePictureBehindItsHeader)
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

TEST_F(V4L2Frame, FramesComeInOrderAndUnchanged)
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

TEST_F(V4L2Frame, FrameIsPublishedBeforeTheCallReturns)
{
    ASSERT_EQ(RET_SUCCESS, get());

    EXPECT_EQ(std::vector<int32_t>{0}, m_subscriber.m_vecStream);
    EXPECT_EQ(m_frame.get(), m_subscriber.m_vecFrame.at(0).get()); // shared, not copied
}

TEST_P(V4L2FrameEmptyBuffer, IsDroppedAndQueuedAgain)
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

INSTANTIATE_TEST_SUITE_P(Sizes, V4L2FrameEmptyBuffer,
                         testing::Values("bytes 0", "bytes 175", "bytes overflow", "broken"));

TEST_F(V4L2Frame, FrameOutlivesItsBuffersReturn)
{
    ASSERT_EQ(RET_SUCCESS, get());
    m_camera.command("freeze");

    ASSERT_EQ(RET_SUCCESS, m_v4l2.releaseVideoStream()); // the camera overwrites it

    EXPECT_EQ(m_camera.frames().at(0).strPicture, payload(m_frame));
}

TEST_F(V4L2Frame, SmallestFrameIsDelivered)
{
    m_camera.command("bytes 176 always");
    startStream(0);

    ASSERT_EQ(RET_SUCCESS, get());

    EXPECT_EQ(176U, +m_frame.get()->u32Size);
    EXPECT_EQ(1U, m_subscriber.m_vecFrame.size());
}

TEST_F(V4L2Frame, OtherStreamsDeliverAnySize)
{
    command("bytes 0");
    startStream(2);

    ASSERT_EQ(RET_SUCCESS, get());

    EXPECT_EQ(0U, +m_frame.get()->u32Size);
    EXPECT_EQ(std::vector<int32_t>{2}, m_subscriber.m_vecStream);
}

TEST_F(V4L2Frame, OverlongFrameOfAnotherStreamIsDropped)
{
    command("bytes overflow");
    startStream(2);

    EXPECT_EQ(RET_AGAIN, get());

    EXPECT_EQ(1, m_log.count("[debug] [videocapture/V4L2 ] [getVideoStream] [2] Ignoring empty "
                             "buffer ...\n"));
    EXPECT_TRUE(m_subscriber.m_vecFrame.empty());
}

TEST_F(V4L2Frame, FrameWithoutMemoryIsDropped)
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

TEST_F(V4L2Frame, EmptyBufferThatCannotBeQueuedIsTriedAgain)
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

TEST_F(V4L2Frame, FrameOutlivesBufferAndCamera)
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
