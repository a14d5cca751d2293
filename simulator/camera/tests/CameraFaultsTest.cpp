// The camera misbehaving on command, as a program sees it.
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "CameraFrames.h"
#include "VideoClient.h"
#include "VirtualCamera.h"

TEST(CameraFaults, FramesAreFlaggedAsBroken)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.requestBuffers(2));
    ASSERT_EQ(0, client.mapBuffers(2));
    ASSERT_EQ(0, client.enqueue(0));
    camera.command("broken 2");
    ASSERT_EQ(0, client.streamOn());

    for (const bool bBroken : {true, true, false}) {
        v4l2_buffer buffer{};
        dequeueOne(client, buffer);
        EXPECT_EQ(bBroken, 0 != (buffer.flags & V4L2_BUF_FLAG_ERROR));
        EXPECT_LT(10000u, buffer.bytesused);
        ASSERT_EQ(0, client.enqueue(buffer.index));
    }
}

TEST(CameraFaults, FailingCallsAreCountedAndSkipped)
{
    VirtualCamera camera;
    camera.command("fail VIDIOC_G_FMT EIO 2 skip 1");
    VideoClient client;
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;

    EXPECT_EQ(0, client.control(VIDIOC_G_FMT, format));
    EXPECT_EQ(EIO, client.control(VIDIOC_G_FMT, format));
    EXPECT_EQ(EIO, client.control(VIDIOC_G_FMT, format));
    EXPECT_EQ(0, client.control(VIDIOC_G_FMT, format));
}

TEST(CameraFaults, DequeueFailsAndTheFrameIsNotLost)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_buffer buffer{};
    ASSERT_EQ(0, client.startStreaming());
    ASSERT_TRUE(client.readable(30000));

    camera.command("fail DQBUF EIO");
    EXPECT_EQ(EIO, client.dequeue(buffer));
    camera.command("fail DQBUF EAGAIN");
    EXPECT_EQ(EAGAIN, client.dequeue(buffer));

    EXPECT_TRUE(client.readable(0));
    EXPECT_EQ(0, client.dequeue(buffer));
    EXPECT_EQ(0u, buffer.sequence);
}

TEST(CameraFaults, EveryCallCanFail)
{
    VirtualCamera camera;
    struct stat status = {};

    camera.command("fail stat EACCES");
    EXPECT_EQ(-1, stat("/dev/video0", &status));
    EXPECT_EQ(EACCES, errno);
    camera.command("fail open EBUSY");
    EXPECT_EQ(EBUSY, VideoClient().error());

    VideoClient client;
    camera.command("fail S_FMT EIO");
    EXPECT_EQ(EIO, client.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480));
    camera.command("fail REQBUFS EINVAL");
    EXPECT_EQ(EINVAL, client.requestBuffers(2));
    EXPECT_EQ(0, client.requestBuffers(2));
    camera.command("fail QUERYBUF EINVAL 1 skip 1");
    EXPECT_EQ(EINVAL, client.mapBuffers(2));
    camera.command("fail mmap ENOMEM");
    EXPECT_EQ(ENOMEM, client.mapBuffers(2));
    camera.command("fail QBUF EIO");
    EXPECT_EQ(EIO, client.enqueue(0));
    camera.command("fail STREAMON EIO");
    EXPECT_EQ(EIO, client.streamOn());
    camera.command("fail STREAMOFF EIO");
    EXPECT_EQ(EIO, client.streamOff());
    EXPECT_EQ(0, client.streamOff());
    camera.command("fail munmap EINVAL");
    EXPECT_EQ(EINVAL, client.unmapBuffers());
    EXPECT_EQ(0, client.unmapBuffers());
    camera.command("fail close EIO");
    const int nFd = client.descriptor();
    EXPECT_EQ(EIO, client.close());
    EXPECT_EQ(-1, fcntl(nFd, F_GETFD)); // closed all the same
    EXPECT_EQ(0, VideoClient().requestBuffers(2));
}

TEST(CameraFaults, FramesHaveTheBytesAskedFor)
{
    VirtualCamera camera({"--keep", "100"});
    VideoClient client;
    ASSERT_EQ(0, client.requestBuffers(2));
    ASSERT_EQ(0, client.mapBuffers(2));
    ASSERT_EQ(0, client.enqueue(0)); // one buffer: each frame is the next one
    camera.command("bytes 175 2");
    ASSERT_EQ(0, client.streamOn());

    EXPECT_EQ(175u, nextBytes(client));
    EXPECT_EQ(175u, nextBytes(client));
    EXPECT_EQ(175u, camera.frames().front().strPicture.size());
    camera.command("bytes 176 always");
    (void)nextBytes(client); // was drawn before the command, perhaps
    EXPECT_EQ(176u, nextBytes(client));
    camera.command("bytes 0 always");
    (void)nextBytes(client);
    EXPECT_EQ(0u, nextBytes(client));
    camera.command("bytes overflow always");
    (void)nextBytes(client);
    EXPECT_EQ(614401u, nextBytes(client));
    camera.command("clear");
    (void)nextBytes(client);
    EXPECT_GT(nextBytes(client), 10000u);
}

TEST(CameraFaults, OneBufferIsGranted)
{
    VirtualCamera camera;
    camera.command("grant 1");
    VideoClient client;
    uint32_t u32Granted = 0;

    EXPECT_EQ(0, client.requestBuffers(2, &u32Granted));
    EXPECT_EQ(1u, u32Granted);
    EXPECT_EQ(EINVAL, client.enqueue(1));
    EXPECT_EQ(0, client.requestBuffers(2, &u32Granted));
    EXPECT_EQ(2u, u32Granted);
}

TEST(CameraFaults, DequeueNamesABufferThatDoesNotExist)
{
    VirtualCamera camera;
    camera.command("index 7");
    VideoClient client;
    v4l2_buffer buffer{};
    ASSERT_EQ(0, client.startStreaming());

    dequeueOne(client, buffer);
    EXPECT_EQ(7u, buffer.index);
    dequeueOne(client, buffer);
    EXPECT_EQ(1u, buffer.index);
}

TEST(CameraFaults, TimePerFrameIsNotSupported)
{
    VirtualCamera camera;
    camera.command("timeperframe off");
    VideoClient client;
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;

    ASSERT_EQ(0, client.control(VIDIOC_G_PARM, parm));
    EXPECT_EQ(0u, parm.parm.capture.capability & V4L2_CAP_TIMEPERFRAME);

    camera.command("timeperframe on");
    ASSERT_EQ(0, client.control(VIDIOC_G_PARM, parm));
    EXPECT_NE(0u, parm.parm.capture.capability & V4L2_CAP_TIMEPERFRAME);
}

TEST(CameraFaults, DriverGrantsThirtyWhenAskedForTwentyFive)
{
    VirtualCamera camera;
    camera.command("coerce 30");
    VideoClient client;
    v4l2_fract granted{};

    ASSERT_EQ(0, client.setInterval(1, 25, &granted));
    EXPECT_EQ(30u, granted.denominator);

    camera.command("coerce off");
    ASSERT_EQ(0, client.setInterval(1, 25, &granted));
    EXPECT_EQ(25u, granted.denominator);
}

TEST(CameraFaults, DeviceIsNoCamera)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_capability cap{};

    camera.command("capabilities 04000000");
    ASSERT_EQ(0, client.control(VIDIOC_QUERYCAP, cap));
    EXPECT_EQ(static_cast<uint32_t>(V4L2_CAP_STREAMING), cap.capabilities);

    camera.command("capabilities normal");
    ASSERT_EQ(0, client.control(VIDIOC_QUERYCAP, cap));
    EXPECT_EQ(0x84a00001u, cap.capabilities);
}

TEST(CameraFaults, NodeIsARegularFile)
{
    VirtualCamera camera;
    camera.command("stat regular");
    struct stat status = {};

    ASSERT_EQ(0, stat("/dev/video0", &status));
    EXPECT_TRUE(S_ISREG(status.st_mode));

    camera.command("stat normal");
    ASSERT_EQ(0, stat("/dev/video0", &status));
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

TEST(CameraFaults, ListOfInputDevicesIsWrong)
{
    VirtualCamera camera;
    EXPECT_NE(std::string::npos, inputDevices().find("H: Handlers=kbd event2 \n"));

    camera.command("list event 7");
    EXPECT_NE(std::string::npos, inputDevices().find("H: Handlers=kbd event7 \n"));
    camera.command("list nohandlers");
    EXPECT_NE(std::string::npos, inputDevices().find("Vendor=05a3 Product=9230"));
    EXPECT_EQ(std::string::npos, inputDevices().find("event2"));
    camera.command("list missing");
    EXPECT_EQ(-1, open("/proc/bus/input/devices", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(ENOENT, errno);
    camera.command("list normal");
    EXPECT_NE(std::string::npos, inputDevices().find("H: Handlers=kbd event2 \n"));
}

TEST(CameraFaults, FrozenCameraFillsNothing)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    EXPECT_GT(nextBytes(client), 176u);

    camera.command("freeze");
    v4l2_buffer buffer{};
    while (0 == client.dequeue(buffer)) { // filled before
        ASSERT_EQ(0, client.enqueue(buffer.index));
    }

    EXPECT_FALSE(client.readable(200));
    EXPECT_EQ(EAGAIN, client.dequeue(buffer));
    EXPECT_NE(std::string::npos, camera.command("status").find("frozen=1"));
    camera.command("thaw");
    EXPECT_TRUE(client.readable(30000));
}
