// What pictures the camera offers, and how requests are coerced to them.
#include "VideoFormats.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>

namespace VideoFormats {

namespace {

struct Format
{
    uint32_t u32PixelFormat;
    uint32_t u32Flags;
    uint32_t u32BytesPerPixel; // 0: compressed
    const char* pDescription;
};

const Format FORMATS[] = {
    {V4L2_PIX_FMT_MJPEG, V4L2_FMT_FLAG_COMPRESSED, 0, "Motion-JPEG"},
    {V4L2_PIX_FMT_YUYV, 0, 2, "YUYV 4:2:2"},
};
const v4l2_frmsize_discrete SIZES[] = {{640, 480}, {1280, 720}};
const v4l2_fract INTERVALS[] = {{1, 30}, {1, 25}, {1, 15}}; // shortest first, as the driver sorts

template <typename T, size_t N> constexpr uint32_t count(const T (&)[N])
{
    return N;
}

const Format* formatOf(uint32_t u32PixelFormat)
{
    for (const Format& format : FORMATS) {
        if (format.u32PixelFormat == u32PixelFormat) {
            return &format;
        }
    }
    return nullptr;
}

/** A video class interval: units of 100 ns, saturated. */
uint32_t units(const v4l2_fract& fract)
{
    const uint64_t u64Maximum = std::numeric_limits<uint32_t>::max();
    if (0 == fract.denominator) {
        return std::numeric_limits<uint32_t>::max();
    }
    const uint64_t u64Units = 10000000ull * fract.numerator / fract.denominator;
    return static_cast<uint32_t>(std::min(u64Units, u64Maximum));
}

} // namespace

int enumerate(v4l2_fmtdesc& description)
{
    const uint32_t u32Index = description.index;
    if (V4L2_BUF_TYPE_VIDEO_CAPTURE != description.type || u32Index >= count(FORMATS)) {
        return EINVAL;
    }
    description = {};
    description.index = u32Index;
    description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    description.flags = FORMATS[u32Index].u32Flags;
    description.pixelformat = FORMATS[u32Index].u32PixelFormat;
    snprintf(reinterpret_cast<char*>(description.description), sizeof(description.description),
             "%s", FORMATS[u32Index].pDescription);
    return 0;
}

int enumerate(v4l2_frmsizeenum& size)
{
    if (nullptr == formatOf(size.pixel_format) || size.index >= count(SIZES)) {
        return EINVAL;
    }
    size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    size.discrete = SIZES[size.index];
    memset(size.reserved, 0, sizeof(size.reserved));
    return 0;
}

int enumerate(v4l2_frmivalenum& interval)
{
    const auto matches = [&interval](const v4l2_frmsize_discrete& size) {
        return size.width == interval.width && size.height == interval.height;
    };
    if (nullptr == formatOf(interval.pixel_format) || interval.index >= count(INTERVALS) ||
        std::none_of(std::begin(SIZES), std::end(SIZES), matches)) {
        return EINVAL;
    }
    interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    interval.discrete = INTERVALS[interval.index];
    memset(interval.reserved, 0, sizeof(interval.reserved));
    return 0;
}

Choice nearest(const v4l2_pix_format& pix)
{
    Choice choice;
    if (nullptr != formatOf(pix.pixelformat)) {
        choice.u32PixelFormat = pix.pixelformat;
    }
    uint64_t u64Best = std::numeric_limits<uint64_t>::max();
    for (const v4l2_frmsize_discrete& size : SIZES) {
        const uint64_t u64Common = static_cast<uint64_t>(std::min(size.width, pix.width)) *
                                   std::min(size.height, pix.height);
        const uint64_t u64Distance = static_cast<uint64_t>(size.width) * size.height +
                                     static_cast<uint64_t>(pix.width) * pix.height - 2 * u64Common;
        if (u64Distance < u64Best) {
            u64Best = u64Distance;
            choice.u32Width = size.width;
            choice.u32Height = size.height;
        }
    }
    return choice;
}

v4l2_pix_format describe(const Choice& choice)
{
    v4l2_pix_format pix{};
    pix.width = choice.u32Width;
    pix.height = choice.u32Height;
    pix.pixelformat = choice.u32PixelFormat;
    pix.field = V4L2_FIELD_NONE;
    pix.bytesperline = formatOf(choice.u32PixelFormat)->u32BytesPerPixel * choice.u32Width;
    pix.sizeimage = bufferLength(choice);
    pix.colorspace = V4L2_COLORSPACE_SRGB;
    pix.priv = V4L2_PIX_FMT_PRIV_MAGIC;
    return pix;
}

uint32_t bufferLength(const Choice& choice)
{
    return choice.u32Width * choice.u32Height * 2; // what such cameras announce for either format
}

v4l2_fract nearestInterval(const v4l2_fract& asked)
{
    const int64_t s64Asked = units(asked);
    const auto distance = [s64Asked](const v4l2_fract& fract) {
        return std::abs(s64Asked - static_cast<int64_t>(units(fract)));
    };
    return *std::min_element(std::begin(INTERVALS), std::end(INTERVALS),
                             [&distance](const v4l2_fract& left, const v4l2_fract& right) {
                                 return distance(left) < distance(right);
                             });
}

} // namespace VideoFormats
