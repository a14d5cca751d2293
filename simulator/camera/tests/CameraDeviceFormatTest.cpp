// The virtual camera's formats, intervals and rectangles.
#include <cerrno>

#include <gtest/gtest.h>

#include "VideoClient.h"
#include "VirtualCamera.h"

TEST(CameraDeviceFormat, InterlacedBecomesProgressive)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_format granted{};

    ASSERT_EQ(0, client.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480, &granted));

    EXPECT_EQ(static_cast<uint32_t>(V4L2_FIELD_NONE), granted.fmt.pix.field);
    EXPECT_EQ(0u, granted.fmt.pix.bytesperline);
    EXPECT_EQ(614400u, granted.fmt.pix.sizeimage);
}

TEST(CameraDeviceFormat, SizeBecomesTheNearest)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_format granted{};

    ASSERT_EQ(0, client.setFormat(V4L2_PIX_FMT_YUYV, 1920, 1080, &granted));
    EXPECT_EQ(1280u, granted.fmt.pix.width);
    EXPECT_EQ(720u, granted.fmt.pix.height);
    EXPECT_EQ(2560u, granted.fmt.pix.bytesperline);

    ASSERT_EQ(0, client.setFormat(V4L2_PIX_FMT_YUYV, 0, 0, &granted));
    EXPECT_EQ(640u, granted.fmt.pix.width);
    EXPECT_EQ(480u, granted.fmt.pix.height);
}

TEST(CameraDeviceFormat, UnknownPixelFormatBecomesMotionJpeg)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_format granted{};

    ASSERT_EQ(0, client.setFormat(5, 640, 480, &granted));

    EXPECT_EQ(V4L2_PIX_FMT_MJPEG, granted.fmt.pix.pixelformat);
    EXPECT_EQ(1u, camera.count("S_FMT type=1 width=640 height=480 pixelformat=5 field=4 = 0"));
}

TEST(CameraDeviceFormat, TriedFormatIsNotSet)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = 1280;
    format.fmt.pix.height = 720;

    ASSERT_EQ(0, client.control(VIDIOC_TRY_FMT, format));
    EXPECT_EQ(1280u, format.fmt.pix.width);

    ASSERT_EQ(0, client.control(VIDIOC_G_FMT, format));
    EXPECT_EQ(640u, format.fmt.pix.width);
}

TEST(CameraDeviceFormat, FormatIsBusyWhileBuffersExist)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.requestBuffers(2));

    EXPECT_EQ(EBUSY, client.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480));

    ASSERT_EQ(0, client.requestBuffers(0));
    EXPECT_EQ(0, client.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480));
}

TEST(CameraDeviceFormat, IntervalBecomesTheNearest)
{
    VirtualCamera camera;
    VideoClient client;
    const struct
    {
        uint32_t u32Asked;
        uint32_t u32Granted;
    } RATES[] = {{25, 25}, {30, 30}, {15, 15}, {255, 30}, {10, 15}, {28, 30}};

    for (const auto& rate : RATES) {
        v4l2_fract granted{};
        ASSERT_EQ(0, client.setInterval(1, rate.u32Asked, &granted));
        EXPECT_EQ(1u, granted.numerator);
        EXPECT_EQ(rate.u32Granted, granted.denominator) << rate.u32Asked;
    }
}

TEST(CameraDeviceFormat, IntervalIsBusyWhileStreaming)
{
    VirtualCamera camera;
    VideoClient client;
    ASSERT_EQ(0, client.startStreaming());

    EXPECT_EQ(EBUSY, client.setInterval(1, 25));
}

TEST(CameraDeviceFormat, CropRectanglesAreTheWholePictureAndCannotBeSet)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_cropcap cropcap{};
    cropcap.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;

    ASSERT_EQ(0, client.control(VIDIOC_CROPCAP, cropcap));

    EXPECT_EQ(640u, cropcap.defrect.width);
    EXPECT_EQ(480u, cropcap.defrect.height);
    v4l2_crop crop{};
    crop.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    crop.c = cropcap.defrect;
    EXPECT_EQ(ENOTTY, client.control(VIDIOC_S_CROP, crop));
}

TEST(CameraDeviceFormat, FormatBringsItsIntervalAlong)
{
    VirtualCamera camera;
    VideoClient client;
    const auto interval = [&] {
        v4l2_streamparm parm{};
        parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(0, client.control(VIDIOC_G_PARM, parm));
        return parm.parm.capture.timeperframe.denominator;
    };
    EXPECT_EQ(30u, interval());
    ASSERT_EQ(0, client.setInterval(1, 25));
    EXPECT_EQ(25u, interval());

    ASSERT_EQ(0, client.setFormat(V4L2_PIX_FMT_MJPEG, 640, 480));

    EXPECT_EQ(30u, interval());
}

TEST(CameraDeviceFormat, CroppingIsToldButNotComposing)
{
    VirtualCamera camera;
    VideoClient client;
    v4l2_selection selection{};
    selection.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (const uint32_t u32Target : {V4L2_SEL_TGT_CROP_DEFAULT, V4L2_SEL_TGT_CROP_BOUNDS}) {
        selection.target = u32Target;
        EXPECT_EQ(0, client.control(VIDIOC_G_SELECTION, selection));
    }
    for (const uint32_t u32Target :
         {V4L2_SEL_TGT_COMPOSE_DEFAULT, V4L2_SEL_TGT_COMPOSE_BOUNDS, V4L2_SEL_TGT_CROP}) {
        selection.target = u32Target;
        EXPECT_EQ(EINVAL, client.control(VIDIOC_G_SELECTION, selection));
    }
}
