// Opening and configuring one camera, as the kernel's driver sees it.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Descriptors.h"
#include "DriverAnswer.h"
#include "Fault.h"
#include "V4L2InitFixture.h"

namespace {

using V4L2Init = V4L2InitFixture;

} // namespace

TEST_F(V4L2Init, AsksTheDriverInOrder)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));
    const std::string strOutput = testing::internal::GetCapturedStdout();

    EXPECT_EQ(
        (Lines{
            "stat = 0 character",
            "open flags=O_RDWR|O_NONBLOCK|O_CLOEXEC = 0",
            "QUERYCAP = 0 driver=uvcvideo capabilities=0x84a00001 device_caps=0x04200001",
            "CROPCAP type=1 = 0 bounds=0,0,640x480 defrect=0,0,640x480",
            "S_CROP type=1 c=0,0,640x480 = -1 ENOTTY",
            "ENUM_FMT index=0 type=1 = 0 pixelformat=MJPG",
            "ENUM_FRAMESIZES index=0 pixelformat=MJPG = 0 size=640x480",
            "ENUM_FRAMESIZES index=1 pixelformat=MJPG = 0 size=1280x720",
            "ENUM_FRAMESIZES index=2 pixelformat=MJPG = -1 EINVAL",
            "ENUM_FMT index=1 type=1 = 0 pixelformat=YUYV",
            "ENUM_FRAMESIZES index=0 pixelformat=YUYV = 0 size=640x480",
            "ENUM_FRAMESIZES index=1 pixelformat=YUYV = 0 size=1280x720",
            "ENUM_FRAMESIZES index=2 pixelformat=YUYV = -1 EINVAL",
            "ENUM_FMT index=2 type=1 = -1 EINVAL",
            "S_FMT type=1 width=640 height=480 pixelformat=MJPG field=4 = 0 width=640 height=480 "
            "pixelformat=MJPG field=1 bytesperline=0 sizeimage=614400",
            "G_PARM type=1 = 0 capability=0x1000 timeperframe=1/30",
            "S_PARM type=1 timeperframe=1/25 = 0 capability=0x1000 timeperframe=1/25",
            "REQBUFS count=2 type=1 memory=1 = 0 count=2",
            "QUERYBUF type=1 memory=1 index=0 = 0 length=614400 offset=0 flags=0x12000",
            "mmap length=614400 prot=READ|WRITE flags=SHARED offset=0 = 0",
            "QUERYBUF type=1 memory=1 index=1 = 0 length=614400 offset=614400 flags=0x12000",
            "mmap length=614400 prot=READ|WRITE flags=SHARED offset=614400 = 0",
        }),
        m_camera.readJournal());
    EXPECT_EQ("640*480 1280*720 \n640*480 1280*720 \n", strOutput);
    EXPECT_EQ((Lines{
                  logged("init", "Probe: stream(0) dev(/dev/video0)\n"),
                  logged("init", "[0]camera driver name is : uvcvideo\n"),
                  logged("init", "[0]camera device name is : USB 2.0 Camera: USB Camera\n"),
                  logged("init", "[0]camera bus information: usb-101c0000.ehci-1.1\n"),
                  logged("init", "support device 0.MJPG(Motion-JPEG)\n"),
                  logged("init", "\tresolution: "),
                  logged("init", "support device 1.YUYV(YUYV 4:2:2)\n"),
                  logged("init", "\tresolution: "),
                  logged("init", "use fmt:28\n"),
                  logged("init", "[0] resolution:640*480\n"),
                  logged("setFrameRate", "[0] set frame rate to 25\n"),
              }),
              m_log.lines());
}

TEST_F(V4L2Init, StreamOneAsksForTheLargerSize)
{
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(1));

    EXPECT_EQ(1U,
              m_camera.count("S_FMT type=1 width=1280 height=720 pixelformat=MJPG field=4 = 0"));
    EXPECT_EQ(1, m_log.count(logged("init", "Probe: stream(1) dev(/dev/video0)\n")));
    EXPECT_EQ(1, m_log.count(logged("init", "[1] resolution:1280*720\n")));
    EXPECT_EQ(1, m_log.count(logged("setFrameRate", "[1] set frame rate to 25\n")));
}

TEST_F(V4L2Init, OtherStreamsTakeTheFirstNodeAndAskForNoSize)
{
    m_camera.command("list missing");

    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(2));

    EXPECT_EQ(1, m_log.count(logged("init", "Probe: stream(2) dev(/dev/video0)\n")));
    EXPECT_EQ(1U, m_camera.count("S_FMT type=1 width=0 height=0 pixelformat=MJPG field=4 = 0"));
}

TEST_F(V4L2Init, SizeOfAnEarlierStreamIsNotAskedForAgain)
{
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));

    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(2));

    EXPECT_EQ(1U, m_camera.count("S_FMT type=1 width=0 height=0 "));
}

TEST_F(V4L2Init, SizeIsZeroBefore)
{
    EXPECT_EQ(0U, m_v4l2.getWidth());
    EXPECT_EQ(0U, m_v4l2.getHeight());
}

TEST_F(V4L2Init, GrantedSizeIsKept)
{
    const DriverAnswer answer([](unsigned long ulRequest, void* pRecord) {
        if (VIDIOC_S_FMT == ulRequest) {
            static_cast<v4l2_format*>(pRecord)->fmt.pix.width = 320;
            static_cast<v4l2_format*>(pRecord)->fmt.pix.height = 240;
        }
    });

    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));

    EXPECT_EQ(1, m_log.count(logged("init", "[0] resolution:320*240\n")));
    EXPECT_EQ(320U, m_v4l2.getWidth());
    EXPECT_EQ(240U, m_v4l2.getHeight());
}

TEST_F(V4L2Init, UnlistedCameraFailsWithoutAMessage)
{
    m_camera.command("unplug");

    EXPECT_EQ(RET_FAILED, m_v4l2.init(0));

    EXPECT_EQ(Lines{}, m_log.lines());
    EXPECT_EQ(Lines{}, m_camera.readJournal());
}

TEST_F(V4L2Init, MissingNodeFailsWithoutAMessage)
{
    m_camera.command("fail stat ENOENT");

    EXPECT_EQ(RET_FAILED, m_v4l2.init(0));

    EXPECT_EQ(Lines{}, messages());
    EXPECT_EQ(Lines{"stat = -1 ENOENT"}, m_camera.readJournal());
}

TEST_F(V4L2Init, RegularFileFailsWithoutAMessage)
{
    m_camera.command("stat regular");

    EXPECT_EQ(RET_FAILED, m_v4l2.init(0));

    EXPECT_EQ(Lines{}, messages());
    EXPECT_EQ(Lines{"stat = 0 regular"}, m_camera.readJournal());
}

TEST_F(V4L2Init, NodeThatCannotBeOpenedFailsWithoutAMessage)
{
    m_camera.command("fail open EBUSY");

    EXPECT_EQ(RET_FAILED, m_v4l2.init(0));

    EXPECT_EQ(Lines{}, messages());
}

TEST_F(V4L2Init, NodeWithoutCapabilitiesIsClosedByTheNextInit)
{
    m_camera.command("fail QUERYCAP EIO");

    EXPECT_EQ(RET_FAILED, m_v4l2.init(0));
    const Lines vecMessage = messages();
    m_camera.clearJournal();
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));

    EXPECT_EQ(Lines{}, vecMessage); // only EINVAL is reported
    EXPECT_EQ("close = 0", m_camera.readJournal().at(0));
    EXPECT_EQ("stat = 0 character", m_camera.readJournal().at(1));
}

TEST_F(V4L2Init, NodeWithoutCaptureIsClosed)
{
    const DriverAnswer answer([](unsigned long ulRequest, void* pRecord) {
        if (VIDIOC_QUERYCAP == ulRequest) {
            static_cast<v4l2_capability*>(pRecord)->capabilities &= ~0x00000001U;
        }
    });

    EXPECT_EQ(RET_FAILED, m_v4l2.init(0));

    EXPECT_EQ(Lines{logged("init", "/dev/video0 is no video capture device\n")}, messages());
    EXPECT_EQ("close = 0", m_camera.readJournal().back());
    EXPECT_EQ(RET_FAILED, m_v4l2.uninit());
}

TEST_F(V4L2Init, NodeWithoutStreamingIsClosed)
{
    const DriverAnswer answer([](unsigned long ulRequest, void* pRecord) {
        if (VIDIOC_QUERYCAP == ulRequest) {
            static_cast<v4l2_capability*>(pRecord)->capabilities &= ~0x04000000U;
        }
    });

    EXPECT_EQ(RET_FAILED, m_v4l2.init(0));

    EXPECT_EQ(Lines{logged("init", "/dev/video0 does not support streaming i/o\n")}, messages());
    EXPECT_EQ("close = 0", m_camera.readJournal().back());
    EXPECT_EQ(RET_FAILED, m_v4l2.uninit());
}

TEST_F(V4L2Init, CameraWithoutCropRectanglesIsNotAskedToCrop)
{
    m_camera.command("fail CROPCAP ENOTTY");

    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));

    EXPECT_EQ(0U, m_camera.count("S_CROP"));
}

TEST_F(V4L2Init, InterruptedCallIsRepeated)
{
    m_camera.command("fail S_FMT EINTR 3");

    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0));

    EXPECT_EQ(4U, m_camera.count("S_FMT "));
}

/** The allocation of the table of two buffers, each an address and a length. */
const std::string BUFFER_TABLE = "calloc=" + std::to_string(2 * 2 * sizeof(void*));

/** A step of init that fails once the device is open. */
struct FailingStep
{
    const char* pCommand; // of the virtual camera; empty for none
    std::string strFault; // of the C library; empty for none
    const char* pLastCall;
    const char* pMessage; // the last line logged
};

void PrintTo(const FailingStep& step, std::ostream* pStream)
{
    *pStream << step.pLastCall;
}

class V4L2InitFailingStep : public V4L2Init, public testing::WithParamInterface<FailingStep>
{
};

TEST_P(V4L2InitFailingStep, ClosesTheDeviceAndLeavesNothingBehind)
{
    const size_t uBefore = openDescriptors().size();
    if ('\0' != *GetParam().pCommand) {
        m_camera.command(GetParam().pCommand);
    }

    {
        const FaultScope fault(GetParam().strFault.c_str());
        EXPECT_EQ(0, fault.result());
        EXPECT_EQ(RET_FAILED, m_v4l2.init(0));
    }

    EXPECT_EQ("close = 0", m_camera.readJournal().back());
    EXPECT_EQ(1U, m_camera.count(GetParam().pLastCall))
        << testing::PrintToString(m_camera.readJournal());
    EXPECT_EQ(std::string("[debug] [videocapture/V4L2 ] ") + GetParam().pMessage,
              m_log.lines().back());
    EXPECT_EQ(uBefore, openDescriptors().size());
    EXPECT_EQ(0U, mappedBuffers());
    EXPECT_EQ(RET_FAILED, m_v4l2.uninit()); // closed already
    EXPECT_EQ(RET_FAILED, m_v4l2.streamOff());
    EXPECT_EQ(RET_SUCCESS, m_v4l2.init(0)); // and ready for the next attempt
    EXPECT_EQ(2U, mappedBuffers());
}

INSTANTIATE_TEST_SUITE_P(
    Steps, V4L2InitFailingStep,
    testing::Values(
        FailingStep{"fail S_FMT EINVAL", "",
                    "S_FMT type=1 width=640 height=480 "
                    "pixelformat=MJPG field=4 = -1 EINVAL",
                    "[init] use fmt:28\n"},
        FailingStep{"fail REQBUFS EINVAL", "", "REQBUFS count=2 type=1 memory=1 = -1 EINVAL",
                    "[init] /dev/video0 does not support memory mapping\n"},
        FailingStep{"fail REQBUFS ENOMEM", "", "REQBUFS count=2 type=1 memory=1 = -1 ENOMEM",
                    "[setFrameRate] [0] set frame rate to 25\n"},
        FailingStep{"grant 1", "", "REQBUFS count=2 type=1 memory=1 = 0 count=1",
                    "[init] Insufficient buffer memory on /dev/video0\n"},
        FailingStep{"", BUFFER_TABLE + ":1:ENOMEM", "REQBUFS count=2 type=1 memory=1 = 0 count=2",
                    "[init] Out of memory\n"},
        FailingStep{"fail QUERYBUF EIO", "", "QUERYBUF type=1 memory=1 index=0 = -1 EIO",
                    "[setFrameRate] [0] set frame rate to 25\n"},
        FailingStep{"fail QUERYBUF EIO 1 skip 1", "", "QUERYBUF type=1 memory=1 index=1 = -1 EIO",
                    "[setFrameRate] [0] set frame rate to 25\n"},
        FailingStep{"fail mmap ENOMEM", "",
                    "mmap length=614400 prot=READ|WRITE flags=SHARED offset=0 = -1 ENOMEM",
                    "[setFrameRate] [0] set frame rate to 25\n"},
        FailingStep{"fail mmap ENOMEM 1 skip 1", "",
                    "mmap length=614400 prot=READ|WRITE flags=SHARED offset=614400 = -1 ENOMEM",
                    "[setFrameRate] [0] set frame rate to 25\n"}));

TEST_F(V4L2Init, DeliberatePixelFormatIsMotionJpegButForTwoCodes)
{
    EXPECT_EQ(0x47504A4DU, V4L2::pixelFormat(28)); // "MJPG"
    EXPECT_EQ(0x47504A4DU, V4L2::pixelFormat(0));
    EXPECT_EQ(5U, V4L2::pixelFormat(5)); // no four-character code
    EXPECT_EQ(5U, V4L2::pixelFormat(13));
}
