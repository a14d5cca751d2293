// The virtual camera's buffers, mappings and streaming.
#include <cerrno>

#include <fcntl.h>
#include <sys/mman.h>

#include <gtest/gtest.h>

#include "VideoClient.h"
#include "VirtualCamera.h"

TEST(CameraDeviceStream, RequestGrantsExactlyTheBuffersAskedFor)
{
    VirtualCamera camera;
    VideoClient client;
    uint32_t u32Granted = 0;

    ASSERT_EQ(0, client.requestBuffers(2, &u32Granted));
    EXPECT_EQ(2u, u32Granted);

    v4l2_buffer buffer{};
    ASSERT_EQ(0, client.queryBuffer(0, buffer));
    EXPECT_EQ(0u, buffer.m.offset);
    EXPECT_EQ(614400u, buffer.length);
    ASSERT_EQ(0, client.queryBuffer(1, buffer));
    EXPECT_EQ(614400u, buffer.m.offset);
    EXPECT_EQ(EINVAL, client.queryBuffer(2, buffer));
    ASSERT_EQ(0, client.requestBuffers(40, &u32Granted));
    EXPECT_EQ(32u, u32Granted);
}

TEST(CameraDeviceStream, RequestIsBusyWhileStreaming)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());

    EXPECT_EQ(EBUSY, client.requestBuffers(2));
    EXPECT_EQ(EBUSY, client.requestBuffers(0));
}

TEST(CameraDeviceStream, QueueingTwiceIsInvalid)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.requestBuffers(2));
    ASSERT_EQ(0, client.enqueue(0));

    EXPECT_EQ(EINVAL, client.enqueue(0));
    EXPECT_EQ(EINVAL, client.enqueue(2));
    EXPECT_EQ(0, client.enqueue(1));
}

TEST(CameraDeviceStream, MappingMustBeSharedAndStartAtABuffer)
{
    VirtualCamera camera;
    VideoClient client;
    const size_t uLength = 614400;
    const int nFd = client.descriptor();
    EXPECT_EQ(MAP_FAILED, mmap(nullptr, uLength, PROT_READ, MAP_SHARED, nFd, 0));
    EXPECT_EQ(EINVAL, errno);
    ASSERT_EQ(0, client.requestBuffers(2));

    EXPECT_EQ(MAP_FAILED, mmap(nullptr, uLength, PROT_READ, MAP_PRIVATE, nFd, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(MAP_FAILED, mmap(nullptr, uLength, PROT_READ, MAP_SHARED, nFd, 4096));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(MAP_FAILED, mmap(nullptr, uLength, PROT_READ, MAP_SHARED, nFd, 2 * uLength));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, client.mapBuffers(2));
    EXPECT_EQ(0, client.unmapBuffers());
    EXPECT_EQ(2u, camera.count("munmap length=614400 offset="));
}

TEST(CameraDeviceStream, MappingOutlivesBuffersAndDescriptor)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    v4l2_buffer buffer{};
    ASSERT_TRUE(client.readable(30000));
    ASSERT_EQ(0, client.dequeue(buffer));
    const std::vector<uint8_t> vecBefore = client.bytes(buffer);

    ASSERT_EQ(0, client.streamOff());
    ASSERT_EQ(0, client.requestBuffers(0));
    ASSERT_EQ(0, client.close());

    EXPECT_EQ(vecBefore, client.bytes(buffer));
}

TEST(CameraDeviceStream, StreamingOnNeedsBuffersAndMayBeRepeated)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480));

    EXPECT_EQ(EINVAL, client.streamOn());

    ASSERT_EQ(0, client.requestBuffers(2));
    EXPECT_EQ(0, client.streamOn());
    EXPECT_EQ(0, client.streamOn());
    EXPECT_EQ(0, client.streamOff());
    EXPECT_EQ(0, client.streamOff());
}

TEST(CameraDeviceStream, DequeueIsInvalidUnlessStreaming)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_buffer buffer{};
    ASSERT_EQ(0, client.requestBuffers(2));
    ASSERT_EQ(0, client.enqueue(0));

    EXPECT_EQ(EINVAL, client.dequeue(buffer));
}

TEST(CameraDeviceStream, DequeueOfAnEmptyQueueAsksToTryAgain)
{
    VirtualCamera camera;
    camera.command("freeze");
    VideoClient client;
    v4l2_buffer buffer{};
    ASSERT_EQ(0, client.startStreaming());

    EXPECT_EQ(EAGAIN, client.dequeue(buffer));
}

TEST(CameraDeviceStream, SelectFindsItReadableWhileAFilledBufferWaits)
{
    VirtualCamera camera;
    camera.command("freeze");
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    EXPECT_FALSE(client.readable(100));

    camera.command("thaw");
    ASSERT_TRUE(client.readable(30000));
    EXPECT_TRUE(client.readable(0)); // looking takes nothing away

    camera.command("freeze");
    v4l2_buffer buffer{};
    while (0 == client.dequeue(buffer)) {
    }
    EXPECT_FALSE(client.readable(0));
}

TEST(CameraDeviceStream, SelectDoesNotWaitForWhatNeverStreams)
{
    VirtualCamera camera;
    VideoClient client;

    EXPECT_TRUE(client.readable(0));

    ASSERT_EQ(0, client.requestBuffers(2));
    ASSERT_EQ(0, client.streamOn()); // no buffer was ever queued
    EXPECT_TRUE(client.readable(0));
    ASSERT_EQ(0, client.enqueue(0));
    camera.command("freeze");
    v4l2_buffer buffer{};
    while (0 == client.dequeue(buffer)) {
    }
    EXPECT_FALSE(client.readable(0));
    ASSERT_EQ(0, client.streamOff());
    EXPECT_TRUE(client.readable(0));
}

TEST(CameraDeviceStream, BlockingDequeueWaits)
{
    VirtualCamera camera;
    VideoClient client(O_RDWR);
    ASSERT_EQ(0, client.startStreaming());

    for (uint32_t i = 0; i < 5; ++i) {
        v4l2_buffer buffer{};
        ASSERT_EQ(0, client.dequeue(buffer));
        EXPECT_GT(buffer.bytesused, 176u);
        ASSERT_EQ(0, client.enqueue(buffer.index));
    }
    EXPECT_EQ(0u, camera.count("DQBUF type=1 memory=1 = -1"));
}

TEST(CameraDeviceStream, DequeuedBufferTellsFlagsSequenceAndTime)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    timespec now{};

    v4l2_buffer buffer{};
    ASSERT_TRUE(client.readable(30000));
    ASSERT_EQ(0, client.dequeue(buffer));
    clock_gettime(CLOCK_MONOTONIC, &now);

    EXPECT_EQ(0u, buffer.index);
    EXPECT_EQ(0u, buffer.sequence);
    EXPECT_EQ(static_cast<uint32_t>(V4L2_FIELD_NONE), buffer.field);
    EXPECT_EQ(static_cast<uint32_t>(V4L2_BUF_FLAG_MAPPED | V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC |
                                    V4L2_BUF_FLAG_TSTAMP_SRC_SOE),
              buffer.flags);
    const double dAge = static_cast<double>(now.tv_sec - buffer.timestamp.tv_sec) +
                        static_cast<double>(now.tv_nsec) / 1e9 -
                        static_cast<double>(buffer.timestamp.tv_usec) / 1e6;
    EXPECT_GT(dAge, 0);
    EXPECT_LT(dAge, 60);
}

TEST(CameraDeviceStream, SecondOpenMayAskButNotStream)
{
    VirtualCamera camera;
    VideoClient first;
    VideoClient second;
    v4l2_capability cap{};
    ASSERT_EQ(0, first.startStreaming());

    EXPECT_EQ(0, second.control(VIDIOC_QUERYCAP, cap));
    EXPECT_EQ(EBUSY, second.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480));
    EXPECT_EQ(EBUSY, second.requestBuffers(2));
    EXPECT_EQ(EBUSY, second.streamOff());

    ASSERT_EQ(0, first.close());
    EXPECT_EQ(0, second.requestBuffers(2));
}

TEST(CameraDeviceStream, BufferThatWasGivenBackHoldsNoPicture)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.requestBuffers(2));
    ASSERT_EQ(0, client.mapBuffers(2));
    ASSERT_EQ(0, client.enqueue(0));
    ASSERT_EQ(0, client.streamOn());
    ASSERT_TRUE(client.readable(30000));
    camera.command("freeze");
    v4l2_buffer buffer{};
    ASSERT_EQ(0, client.dequeue(buffer));
    EXPECT_EQ(0xff, client.bytes(buffer).at(0));

    ASSERT_EQ(0, client.enqueue(0));

    EXPECT_EQ(std::vector<uint8_t>(buffer.bytesused, 0xdb), client.bytes(buffer));
}

TEST(CameraDeviceStream, EveryOpenMayMapTheBuffers)
{
    VirtualCamera camera;
    VideoClient owner;
    VideoClient other;
    ASSERT_EQ(0, owner.startStreaming());

    void* pMapped = mmap(nullptr, 614400, PROT_READ, MAP_SHARED, other.descriptor(), 614400);

    ASSERT_NE(MAP_FAILED, pMapped);
    EXPECT_EQ(0, munmap(pMapped, 614400));
}
