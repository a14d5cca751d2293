// What pictures the camera offers, and how requests are coerced to them.
#pragma once

#include "preload/CameraProtocol.h"

/**
 * MJPG and YUYV, each at 640x480 and 1280x720, each at 1/30, 1/25 and 1/15 second per frame.
 *
 * Functions that answer an ioctl return 0 or an error number.
 */
namespace VideoFormats {

/** One moment's choice. */
struct Choice
{
    uint32_t u32PixelFormat = V4L2_PIX_FMT_MJPEG;
    uint32_t u32Width = 640;
    uint32_t u32Height = 480;
};

/** VIDIOC_ENUM_FMT, VIDIOC_ENUM_FRAMESIZES, VIDIOC_ENUM_FRAMEINTERVALS; EINVAL behind the end. */
int enumerate(v4l2_fmtdesc& description);
int enumerate(v4l2_frmsizeenum& size);
int enumerate(v4l2_frmivalenum& interval);

/**
 * The choice nearest to a request, as the UVC driver takes it: an unknown pixel format becomes the
 * first one, a size the one whose area differs least when both are laid corner on corner.
 */
Choice nearest(const v4l2_pix_format& pix);

/** The driver's full answer for a choice: progressive, with line and image sizes. */
v4l2_pix_format describe(const Choice& choice);

/** Bytes of one buffer for a choice. */
uint32_t bufferLength(const Choice& choice);

/** The offered interval nearest to a request; a denominator of 0 asks for the slowest. */
v4l2_fract nearestInterval(const v4l2_fract& asked);

} // namespace VideoFormats
