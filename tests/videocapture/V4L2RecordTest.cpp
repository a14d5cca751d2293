// V4L2: what the records passed to the driver hold, and in the frames made of its answers.
#include <cstring>
#include <string>
#include <vector>

#include <linux/videodev2.h>

#include <gtest/gtest.h>

#include "DriverAnswer.h"
#include "LogCapture.h"
#include "V4L2.h"
#include "VirtualCamera.h"

namespace {

/** Which of a record's bytes are not zero, but for the given fields, which are cleared first. */
template <class T> size_t othersSet(T record, void (*pClear)(T&))
{
    pClear(record);
    unsigned char auByte[sizeof(T)];
    memcpy(auByte, &record, sizeof(T));
    size_t uSet = 0;
    for (const unsigned char u : auByte) {
        uSet += (0 != u) ? 1 : 0;
    }
    return uSet;
}

class V4L2Record : public testing::Test
{
protected:
    RET_E get()
    {
        return m_v4l2.getVideoStream(m_frame, 10000);
    }

    VirtualCamera m_camera{{"--keep", "100"}};
    LogCapture m_log;
    V4L2 m_v4l2;
    PVENC_FRAME_T m_frame;
};

} // namespace

// Beside the rate the driver may read capability, mode and buffer count.
TEST_F(V4L2Record, RateIsAskedForInAClearRecord)
{
    std::vector<v4l2_streamparm> vecAsked;
    const DriverAnswer answer(
        [](unsigned long ulRequest, void* pRecord) {
            auto* pParm = static_cast<v4l2_streamparm*>(pRecord);
            if (VIDIOC_G_PARM == ulRequest) {
                memset(&pParm->parm, 0xff, sizeof(pParm->parm));
            } else if (VIDIOC_S_PARM == ulRequest) {
                memset(&pParm->parm, 0xff, sizeof(pParm->parm));
                pParm->parm.capture.timeperframe.denominator = 60; // more than was asked for
            }
        },
        [&vecAsked](unsigned long ulRequest, void* pRecord) {
            if (VIDIOC_S_PARM == ulRequest) {
                vecAsked.push_back(*static_cast<v4l2_streamparm*>(pRecord));
            }
        });

    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));

    ASSERT_EQ(2U, vecAsked.size());
    for (const v4l2_streamparm& parm : vecAsked) {
        EXPECT_EQ(0U, othersSet<v4l2_streamparm>(parm, [](v4l2_streamparm& record) {
                      record.type = 0;
                      record.parm.capture.timeperframe = {0, 0};
                  }));
    }
}

TEST_F(V4L2Record, BufferIsDequeuedInAClearRecord)
{
    std::vector<v4l2_buffer> vecAsked;
    const DriverAnswer answer(nullptr, [&vecAsked](unsigned long ulRequest, void* pRecord) {
        if (VIDIOC_DQBUF == ulRequest) {
            vecAsked.push_back(*static_cast<v4l2_buffer*>(pRecord));
        }
    });
    ASSERT_EQ(RET_SUCCESS, m_v4l2.init(0));
    ASSERT_EQ(RET_SUCCESS, m_v4l2.streamOn());

    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(RET_SUCCESS, get());
        ASSERT_EQ(RET_SUCCESS, m_v4l2.releaseVideoStream());
    }

    ASSERT_EQ(3U, vecAsked.size());
    for (const v4l2_buffer& buffer : vecAsked) {
        EXPECT_EQ(0U, othersSet<v4l2_buffer>(buffer, [](v4l2_buffer& record) {
                      record.type = 0;
                      record.memory = 0;
                  }));
    }
}

TEST_F(V4L2Record, FrameBearsTheSizeThatWasGranted)
{
    const DriverAnswer answer([](unsigned long ulRequest, void* pRecord) {
        if (VIDIOC_S_FMT == ulRequest) {
            static_cast<v4l2_format*>(pRecord)->fmt.pix.width = 320;
            static_cast<v4l2_format*>(pRecord)->fmt.pix.height = 240;
        }
    });
    ASSERT_EQ(RET_SUCCESS, m_v4l2.init(0));
    ASSERT_EQ(RET_SUCCESS, m_v4l2.streamOn());

    ASSERT_EQ(RET_SUCCESS, get());

    EXPECT_EQ(320U, +m_frame.get()->u32Width);
    EXPECT_EQ(240U, +m_frame.get()->u32Height);
}

TEST_F(V4L2Record, FrameThatFillsItsBufferIsDelivered)
{
    m_camera.command("bytes 614400 always");
    ASSERT_EQ(RET_SUCCESS, m_v4l2.init(0));
    ASSERT_EQ(RET_SUCCESS, m_v4l2.streamOn());

    ASSERT_EQ(RET_SUCCESS, get());

    EXPECT_EQ(614400U, +m_frame.get()->u32Size);
}

TEST_F(V4L2Record, StreamOneTakesTheNodeOfTheList)
{
    m_camera.command("list event 6");

    (void)m_v4l2.init(1);

    EXPECT_EQ(1, m_log.count("[debug] [videocapture/V4L2 ] [init] Probe: stream(1) "
                             "dev(/dev/video1)\n"))
        << m_log.text();
}

TEST_F(V4L2Record, StreamOneDropsEmptyBuffers)
{
    m_camera.command("bytes 175");
    ASSERT_EQ(RET_SUCCESS, m_v4l2.init(1));
    ASSERT_EQ(RET_SUCCESS, m_v4l2.streamOn());

    EXPECT_EQ(RET_AGAIN, get());

    EXPECT_EQ(RET_SUCCESS, get());
}
