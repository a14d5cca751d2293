// The virtual camera pulled, put back, and without its program.
#include <cerrno>
#include <fstream>
#include <iterator>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CameraFrames.h"
#include "VideoClient.h"
#include "VirtualCamera.h"

TEST(CameraFaultsUnplug, UnplugTakesNodeListEntryAndOpensAway)
{
    VirtualCamera camera;
    VideoClient client;
    struct stat status = {};
    v4l2_buffer buffer{};
    ASSERT_EQ(0, client.startStreaming());
    EXPECT_NE(std::string::npos, inputDevices().find("Vendor=05a3 Product=9230"));

    camera.command("unplug");

    EXPECT_TRUE(client.readable(0));
    pollfd look{client.descriptor(), POLLIN, 0};
    EXPECT_EQ(1, poll(&look, 1, 0));
    EXPECT_TRUE(look.revents & POLLHUP);
    EXPECT_EQ(ENODEV, client.dequeue(buffer));
    EXPECT_EQ(ENODEV, client.enqueue(0));
    EXPECT_EQ(ENODEV, client.streamOff());
    EXPECT_EQ(0, client.unmapBuffers());
    EXPECT_EQ(0, client.close());
    EXPECT_EQ(-1, stat("/dev/video0", &status));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(ENOENT, VideoClient().error());
    EXPECT_EQ(std::string::npos, inputDevices().find("Vendor=05a3"));
    EXPECT_EQ(1u, camera.count("close = 0"));
}

TEST(CameraFaultsUnplug, ReplugBringsAFreshCamera)
{
    VirtualCamera camera;
    VideoClient before;
    ASSERT_EQ(0, before.setFormat(V4L2_PIX_FMT_YUYV, 1280, 720));
    camera.command("unplug");

    camera.command("replug");

    v4l2_capability cap{};
    EXPECT_EQ(ENODEV, before.control(VIDIOC_QUERYCAP, cap)); // what was lost stays lost
    VideoClient after;
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(0, after.control(VIDIOC_G_FMT, format));
    EXPECT_EQ(640u, format.fmt.pix.width);
    EXPECT_NE(std::string::npos, inputDevices().find("Vendor=05a3 Product=9230"));
    ASSERT_EQ(0, after.startStreaming());
    EXPECT_GT(nextBytes(after), 176u);
}

TEST(CameraFaultsUnplug, SlowUnplugHandsOutBrokenBuffersBeforeTheNodeGoes)
{
    VirtualCamera camera;
    camera.command("freeze");
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());

    camera.command("unplug slowly 600000");

    for (uint32_t i = 0; i < 2; ++i) {
        v4l2_buffer buffer{};
        dequeueOne(client, buffer);
        EXPECT_EQ(i, buffer.index);
        EXPECT_EQ(0u, buffer.bytesused);
        EXPECT_TRUE(buffer.flags & V4L2_BUF_FLAG_ERROR);
        EXPECT_EQ(ENODEV, client.enqueue(i));
    }
    EXPECT_FALSE(client.readable(0));
    v4l2_buffer buffer{};
    EXPECT_EQ(EAGAIN, client.dequeue(buffer));
    struct stat status = {};
    EXPECT_EQ(0, stat("/dev/video0", &status));

    camera.command("unplug");

    EXPECT_TRUE(client.readable(0));
    EXPECT_EQ(ENODEV, client.dequeue(buffer));
    EXPECT_EQ(ENOENT, VideoClient().error());
}

TEST(CameraFaultsUnplug, SlowUnplugEndsByItself)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());
    for (int i = 0; i < 2; ++i) {
        v4l2_buffer buffer{};
        dequeueOne(client, buffer); // none is left to be handed out
    }

    camera.command("unplug slowly 20");

    ASSERT_TRUE(client.readable(30000));
    v4l2_buffer buffer{};
    EXPECT_EQ(ENODEV, client.dequeue(buffer));
    camera.command("replug");
    VideoClient after;
    EXPECT_EQ(0, after.startStreaming());
    EXPECT_GT(nextBytes(after), 176u);
}

TEST(CameraFaultsUnplug, ReplugMayBringAnotherNumber)
{
    VirtualCamera camera;
    camera.command("unplug");

    camera.command("replug video1 event6");

    struct stat status = {};
    EXPECT_EQ(-1, stat("/dev/video0", &status));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(0, stat("/dev/video1", &status));
    EXPECT_EQ(makedev(81, 1), status.st_rdev);
    EXPECT_EQ(-1, open("/dev/video0", O_RDWR));
    const int nFd = open("/dev/video1", O_RDWR);
    EXPECT_LE(0, nFd);
    v4l2_capability cap{};
    EXPECT_EQ(0, ioctl(nFd, VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(0, close(nFd));
    EXPECT_NE(std::string::npos, inputDevices().find("H: Handlers=kbd event6 \n"));
    std::ifstream uevent("/sys/dev/char/81:1/uevent");
    const std::string strUevent{std::istreambuf_iterator<char>(uevent), {}};
    EXPECT_EQ("MAJOR=81\nMINOR=1\nDEVNAME=video1\n", strUevent);

    camera.command("unplug");
    camera.command("replug");

    EXPECT_EQ(0, stat("/dev/video0", &status));
    EXPECT_EQ(-1, stat("/dev/video1", &status));
    EXPECT_EQ(1u, camera.count("open node=1 flags=O_RDWR = 0"));
}

TEST(CameraFaultsUnplug, UnplugBetweenDequeueAndQueue)
{
    VirtualCamera camera;
    camera.command("unplug after dequeue");
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());

    v4l2_buffer buffer{};
    dequeueOne(client, buffer);

    EXPECT_EQ(ENODEV, client.enqueue(buffer.index));
}

TEST(CameraFaultsUnplug, BlockedDequeueEndsWithTheUnplug)
{
    VirtualCamera camera;
    camera.command("unplug after STREAMON");
    VideoClient client(O_RDWR);
    v4l2_buffer buffer{};
    ASSERT_EQ(0, client.startStreaming());

    EXPECT_EQ(ENODEV, client.dequeue(buffer));
}

TEST(CameraFaultsUnplug, ProgramGoneMeansDeviceGone)
{
    auto pCamera = std::make_unique<VirtualCamera>();
    VideoClient client;
    v4l2_buffer buffer{};
    ASSERT_EQ(0, client.startStreaming());

    pCamera.reset();

    EXPECT_TRUE(client.readable(0));
    EXPECT_EQ(ENODEV, client.dequeue(buffer));
    EXPECT_EQ(0, client.close());
}
