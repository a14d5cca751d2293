// The driver's answers, call by call, as a program sees them.
#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "VideoClient.h"
#include "VirtualCamera.h"

TEST(CameraDevice, NodeIsACharacterDevice)
{
    VirtualCamera camera;
    struct stat status = {};

    ASSERT_EQ(0, stat("/dev/video0", &status));

    EXPECT_TRUE(S_ISCHR(status.st_mode));
    EXPECT_EQ(makedev(81, 0), status.st_rdev);
    EXPECT_EQ(0, lstat("/dev/video0", &status));
    const VideoClient client;
    status = {};
    EXPECT_EQ(0, fstat(client.descriptor(), &status));
    EXPECT_TRUE(S_ISCHR(status.st_mode));
}

TEST(CameraDevice, NodeIsMissingWithoutTheProgram)
{
    setenv("KESTREL_CAMERA_DIR", "/nonexistent", 1);
    struct stat status = {};

    EXPECT_EQ(-1, stat("/dev/video0", &status));
    EXPECT_EQ(ENOENT, errno);
    const VideoClient client;
    EXPECT_EQ(ENOENT, client.error());
    unsetenv("KESTREL_CAMERA_DIR");
}

TEST(CameraDevice, OtherDescriptorsAreLeftAlone)
{
    VirtualCamera camera;
    const VideoClient client;
    const int nFd = open("/dev/null", O_RDWR | O_CLOEXEC);
    v4l2_capability cap{};

    EXPECT_EQ(-1, ioctl(nFd, VIDIOC_QUERYCAP, &cap));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(0u, camera.count("QUERYCAP"));
    close(nFd);
}

TEST(CameraDevice, CapabilitiesAreThoseOfAUvcCamera)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_capability cap{};

    ASSERT_EQ(0, client.control(VIDIOC_QUERYCAP, cap));

    EXPECT_STREQ("uvcvideo", reinterpret_cast<const char*>(cap.driver));
    EXPECT_EQ(0x84a00001u, cap.capabilities);
    EXPECT_EQ(0x04200001u, cap.device_caps);
}

TEST(CameraDevice, UnknownIoctlIsNotATypewriter)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_std_id standard = 0;

    EXPECT_EQ(ENOTTY, client.control(VIDIOC_G_STD, standard));
    EXPECT_EQ(ENOTTY, client.control(TIOCGWINSZ, standard));
    EXPECT_EQ(2u, camera.count("ioctl request=0x"));
}

TEST(CameraDevice, WrongBufferTypeIsInvalid)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    v4l2_requestbuffers request{};
    request.count = 2;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_USERPTR;
    int nType = V4L2_BUF_TYPE_VIDEO_OUTPUT;

    EXPECT_EQ(EINVAL, client.control(VIDIOC_G_FMT, format));
    EXPECT_EQ(EINVAL, client.control(VIDIOC_REQBUFS, request));
    EXPECT_EQ(EINVAL, client.control(VIDIOC_STREAMON, nType));
}

TEST(CameraDevice, PriorityHoldsOthersBack)
{
    VirtualCamera camera;
    VideoClient first;
    VideoClient second;
    uint32_t u32Priority = V4L2_PRIORITY_RECORD;
    ASSERT_EQ(0, first.control(VIDIOC_S_PRIORITY, u32Priority));

    EXPECT_EQ(0, second.control(VIDIOC_G_PRIORITY, u32Priority));
    EXPECT_EQ(static_cast<uint32_t>(V4L2_PRIORITY_RECORD), u32Priority);
    EXPECT_EQ(EBUSY, second.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480));
    EXPECT_EQ(0, first.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480));
    u32Priority = 9;
    EXPECT_EQ(EINVAL, first.control(VIDIOC_S_PRIORITY, u32Priority));
}

TEST(CameraDevice, InputIsTheOneCamera)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_input input{};
    int nInput = 7;

    EXPECT_EQ(0, client.control(VIDIOC_ENUMINPUT, input));
    EXPECT_STREQ("Camera 1", reinterpret_cast<const char*>(input.name));
    input.index = 1;
    EXPECT_EQ(EINVAL, client.control(VIDIOC_ENUMINPUT, input));
    EXPECT_EQ(0, client.control(VIDIOC_G_INPUT, nInput));
    EXPECT_EQ(0, nInput);
    nInput = 1;
    EXPECT_EQ(EINVAL, client.control(VIDIOC_S_INPUT, nInput));
}

TEST(CameraDevice, ControlsAreClampedOrRefused)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_control control{V4L2_CID_BRIGHTNESS, 1000};

    EXPECT_EQ(0, client.control(VIDIOC_S_CTRL, control));
    EXPECT_EQ(64, control.value);
    control = {V4L2_CID_EXPOSURE_AUTO, V4L2_EXPOSURE_SHUTTER_PRIORITY};
    EXPECT_EQ(EINVAL, client.control(VIDIOC_S_CTRL, control));
    control = {V4L2_CID_EXPOSURE_AUTO, 4};
    EXPECT_EQ(ERANGE, client.control(VIDIOC_S_CTRL, control));
    control = {V4L2_CID_EXPOSURE_ABSOLUTE, 100};
    EXPECT_EQ(EACCES, client.control(VIDIOC_S_CTRL, control)); // inactive until manual
    control = {V4L2_CID_GAIN, 0};
    EXPECT_EQ(EINVAL, client.control(VIDIOC_G_CTRL, control));
}

TEST(CameraDevice, SeveralControlsAreSetTogetherOrNotAtAll)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_ext_control aControl[2] = {};
    aControl[0].id = V4L2_CID_EXPOSURE_AUTO;
    aControl[0].value = V4L2_EXPOSURE_MANUAL;
    aControl[1].id = V4L2_CID_GAIN;
    v4l2_ext_controls controls{};
    controls.count = 2;
    controls.controls = aControl;

    EXPECT_EQ(EINVAL, client.control(VIDIOC_S_EXT_CTRLS, controls));
    EXPECT_EQ(2u, controls.error_idx);
    EXPECT_EQ(EINVAL, client.control(VIDIOC_TRY_EXT_CTRLS, controls));
    EXPECT_EQ(1u, controls.error_idx);
    v4l2_control control{V4L2_CID_EXPOSURE_AUTO, 0};
    ASSERT_EQ(0, client.control(VIDIOC_G_CTRL, control));
    EXPECT_EQ(V4L2_EXPOSURE_APERTURE_PRIORITY, control.value);

    aControl[1].id = V4L2_CID_EXPOSURE_ABSOLUTE;
    aControl[1].value = 300;
    EXPECT_EQ(0, client.control(VIDIOC_S_EXT_CTRLS, controls));
    control = {V4L2_CID_EXPOSURE_ABSOLUTE, 0};
    ASSERT_EQ(0, client.control(VIDIOC_G_CTRL, control));
    EXPECT_EQ(300, control.value);
}

TEST(CameraDevice, JournalHoldsTheCallsInOrderWithArgumentsAndResults)
{
    VirtualCamera camera;
    camera.command("freeze");
    {
        struct stat status = {};
        ASSERT_EQ(0, stat("/dev/video0", &status));
        VideoClient client;
        ASSERT_EQ(0, client.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480));
        ASSERT_EQ(0, client.setInterval(1, 255));
        ASSERT_EQ(0, client.startStreaming());
        v4l2_buffer buffer{};
        ASSERT_EQ(EAGAIN, client.dequeue(buffer));
        ASSERT_EQ(0, client.streamOff());
    }
    const std::vector<std::string> EXPECTED = {
        "stat = 0 character",
        "open flags=O_RDWR|O_NONBLOCK|O_CLOEXEC = 0",
        ("S_FMT type=1 width=640 height=480 pixelformat=MJPG field=4 = 0 width=640 height=480 "
         "pixelformat=MJPG field=1 bytesperline=0 sizeimage=614400"),
        "S_PARM type=1 timeperframe=1/255 = 0 capability=0x1000 timeperframe=1/30",
        "REQBUFS count=2 type=1 memory=1 = 0 count=2",
        "QUERYBUF type=1 memory=1 index=0 = 0 length=614400 offset=0 flags=0x12000",
        "mmap length=614400 prot=READ|WRITE flags=SHARED offset=0 = 0",
        "QUERYBUF type=1 memory=1 index=1 = 0 length=614400 offset=614400 flags=0x12000",
        "mmap length=614400 prot=READ|WRITE flags=SHARED offset=614400 = 0",
        "QBUF type=1 memory=1 index=0 = 0",
        "QBUF type=1 memory=1 index=1 = 0",
        "STREAMON type=1 = 0",
        "DQBUF type=1 memory=1 = -1 EAGAIN",
        "STREAMOFF type=1 = 0",
        "munmap length=614400 offset=0 = 0",
        "munmap length=614400 offset=614400 = 0",
        "close = 0",
    };

    EXPECT_EQ(EXPECTED, camera.readJournal());
}

TEST(CameraDevice, JournalTellsArgumentsThatNobodyNeedsWhenTheyAreGiven)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    parm.parm.capture.capturemode = 1;
    parm.parm.capture.extendedmode = 2;
    parm.parm.capture.readbuffers = 3;
    parm.parm.capture.reserved[3] = 4;
    parm.parm.capture.timeperframe = {1, 25};
    ASSERT_EQ(0, client.control(VIDIOC_S_PARM, parm));
    EXPECT_EQ(1u, camera.count("S_PARM type=1 timeperframe=1/25 capability=4096 capturemode=1 "
                               "extendedmode=2 readbuffers=3 reserved = 0"));
    ASSERT_EQ(0, client.startStreaming());
    ASSERT_TRUE(client.readable(30000));
    v4l2_buffer buffer{};
    buffer.index = 1;
    buffer.bytesused = 2;
    buffer.flags = 3;
    buffer.field = 4;
    buffer.timestamp = {5, 6};
    buffer.sequence = 7;
    buffer.m.offset = 8;
    buffer.length = 9;
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(0, client.control(VIDIOC_DQBUF, buffer));

    EXPECT_EQ(1u, camera.count("DQBUF type=1 memory=1 index=1 bytesused=2 flags=3 field=4 "
                               "sequence=7 seconds=5 microseconds=6 offset=8 length=9 = 0"));
}

TEST(CameraDevice, CpuTellsTheProcessorTimeSpentInTheLibrarysCalls)
{
    VirtualCamera camera;
    EXPECT_EQ("ok cpu=0", camera.command("cpu"));
    VideoClient client;
    v4l2_capability cap{};
    timespec before{};
    timespec after{};

    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    for (int i = 0; i < 2000; ++i) {
        ASSERT_EQ(0, client.control(VIDIOC_QUERYCAP, cap));
    }
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);

    const std::string strAnswer = camera.command("cpu");
    ASSERT_EQ(0u, strAnswer.find("ok cpu=")) << strAnswer;
    const long long nTold = std::stoll(strAnswer.substr(strlen("ok cpu=")));
    const long long nOwn =
        (after.tv_sec - before.tv_sec) * 1000000LL + (after.tv_nsec - before.tv_nsec) / 1000;
    EXPECT_GT(nTold, 0);
    EXPECT_LE(nTold, nOwn + 2000); // each call is rounded to microseconds
}
