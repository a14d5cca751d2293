// Opening a camera: finding its node, agreeing on format and rate, mapping its buffers.
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "DeviceIo.h"
#include "Log.h"
#include "UvcProber.h"
#include "V4L2.h"

static const char* const SOURCE_NAME = "videocapture/V4L2";

namespace {

const uint32_t CAMERA_VENDOR = 0x05A3;
const uint32_t CAMERA_PRODUCT = 0x9230;
const uint32_t FRAME_RATE = 25;
const uint32_t BUFFER_COUNT = 2;

} // namespace

RET_E V4L2::init(const int32_t& s32Stream)
{
    releaseDevice();
    m_cap = {};
    m_buf = {};
    m_nWidth = 0;
    m_nHeight = 0;
    m_nStream = s32Stream;

    char acName[128] = {};
    if (RET_SUCCESS != findDevice(acName, sizeof(acName)) || RET_SUCCESS != openDevice(acName)) {
        return RET_FAILED;
    }
    // Deliberate: a node that answers no capability query stays open until the next init or uninit.
    if (RET_SUCCESS != queryCapability(acName)) {
        return RET_FAILED;
    }
    if (RET_SUCCESS != configure(acName)) {
        releaseDevice();
        return RET_FAILED;
    }
    return RET_SUCCESS;
}

RET_E V4L2::findDevice(char* pName, size_t uSize)
{
    int32_t s32Index = 0;
    if (0 == m_nStream) {
        m_nWidth = 640;
        m_nHeight = 480;
    } else if (1 == m_nStream) {
        m_nWidth = 1280;
        m_nHeight = 720;
    }
    if (0 == m_nStream || 1 == m_nStream) {
        s32Index = UvcProber::getInstance().find(CAMERA_VENDOR, CAMERA_PRODUCT);
    }
    if (s32Index < 0) {
        return RET_FAILED;
    }
    snprintf(pName, uSize, "/dev/video%d", s32Index);
    LOG_AS("init", 7, "Probe: stream(%d) dev(%s)\n", m_nStream, pName);
    return RET_SUCCESS;
}

RET_E V4L2::openDevice(const char* pName)
{
    struct stat info = {};
    if (0 != stat(pName, &info) || !S_ISCHR(info.st_mode)) {
        return RET_FAILED;
    }
    m_nFd = open(pName, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    return (m_nFd < 0) ? RET_FAILED : RET_SUCCESS;
}

RET_E V4L2::queryCapability(const char* pName)
{
    if (ioctlRetry(m_nFd, VIDIOC_QUERYCAP, &m_cap) < 0) {
        if (EINVAL == errno) {
            LOG_AS("init", 7, "%s is no V4L2 device\n", pName);
        }
        return RET_FAILED;
    }
    return RET_SUCCESS;
}

RET_E V4L2::configure(const char* pName)
{
    if (0 == (m_cap.capabilities & V4L2_CAP_VIDEO_CAPTURE)) {
        LOG_AS("init", 7, "%s is no video capture device\n", pName);
        return RET_FAILED;
    }
    if (0 == (m_cap.capabilities & V4L2_CAP_STREAMING)) {
        LOG_AS("init", 7, "%s does not support streaming i/o\n", pName);
        return RET_FAILED;
    }
    resetCropping();
    LOG_AS("init", 7, "[%d]camera driver name is : %s\n", m_nStream, m_cap.driver);
    LOG_AS("init", 7, "[%d]camera device name is : %s\n", m_nStream, m_cap.card);
    LOG_AS("init", 7, "[%d]camera bus information: %s\n", m_nStream, m_cap.bus_info);
    listFormats();
    if (RET_SUCCESS != setFormat()) {
        return RET_FAILED;
    }
    (void)setFrameRate(FRAME_RATE); // a camera that keeps its own rate will do
    return mapBuffers(pName);
}

void V4L2::resetCropping()
{
    v4l2_cropcap cropcap{};
    cropcap.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (0 == ioctlRetry(m_nFd, VIDIOC_CROPCAP, &cropcap)) {
        v4l2_crop crop{};
        crop.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        crop.c = cropcap.defrect;
        (void)ioctlRetry(m_nFd, VIDIOC_S_CROP, &crop); // most cameras can't crop
    }
}

void V4L2::listFormats()
{
    v4l2_fmtdesc format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (format.index = 0; 0 == ioctlRetry(m_nFd, VIDIOC_ENUM_FMT, &format); ++format.index) {
        LOG_AS("init", 7, "support device %d.%c%c%c%c(%s)\n", static_cast<int>(format.index),
               static_cast<int>(format.pixelformat & 0xff),
               static_cast<int>((format.pixelformat >> 8) & 0xff),
               static_cast<int>((format.pixelformat >> 16) & 0xff),
               static_cast<int>((format.pixelformat >> 24) & 0xff), format.description);
        LOG_AS("init", 7, "\tresolution: ");
        v4l2_frmsizeenum size{};
        size.pixel_format = format.pixelformat;
        for (size.index = 0; 0 == ioctlRetry(m_nFd, VIDIOC_ENUM_FRAMESIZES, &size); ++size.index) {
            printf("%d*%d ", static_cast<int>(size.discrete.width),
                   static_cast<int>(size.discrete.height));
        }
        printf("\n");
    }
}

uint32_t V4L2::pixelFormat(uint32_t u32Format)
{
    // Deliberate: for codes 5 and 13 the plain number 5, which is no four-character code.
    return (5 == u32Format || 13 == u32Format) ? 5 : V4L2_PIX_FMT_MJPEG;
}

RET_E V4L2::setFormat()
{
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = m_nWidth;
    format.fmt.pix.height = m_nHeight;
    format.fmt.pix.field = V4L2_FIELD_INTERLACED;
    format.fmt.pix.pixelformat = pixelFormat(m_nFormat);
    LOG_AS("init", 7, "use fmt:%d\n", static_cast<int>(m_nFormat));
    if (ioctlRetry(m_nFd, VIDIOC_S_FMT, &format) < 0) {
        return RET_FAILED;
    }
    // The usual correction of the driver's line and picture sizes is left out: a mapped buffer's
    // length comes from VIDIOC_QUERYBUF, nothing here reads those sizes.
    LOG_AS("init", 7, "[%d] resolution:%d*%d\n", m_nStream, static_cast<int>(format.fmt.pix.width),
           static_cast<int>(format.fmt.pix.height));
    m_nWidth = format.fmt.pix.width;
    m_nHeight = format.fmt.pix.height;
    return RET_SUCCESS;
}

RET_E V4L2::mapBuffers(const char* pName)
{
    v4l2_requestbuffers request{};
    request.count = BUFFER_COUNT;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (ioctlRetry(m_nFd, VIDIOC_REQBUFS, &request) < 0) {
        if (EINVAL == errno) {
            LOG_AS("init", 7, "%s does not support memory mapping\n", pName);
        }
        return RET_FAILED;
    }
    if (request.count < BUFFER_COUNT) {
        LOG_AS("init", 7, "Insufficient buffer memory on %s\n", pName);
        return RET_FAILED;
    }
    m_pBuffers.reset(static_cast<MappedBuffer*>(calloc(request.count, sizeof(MappedBuffer))));
    if (nullptr == m_pBuffers) {
        LOG_AS("init", 7, "Out of memory\n");
        return RET_FAILED;
    }
    for (m_nBuffers = 0; m_nBuffers < request.count; ++m_nBuffers) {
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = m_nBuffers;
        if (ioctlRetry(m_nFd, VIDIOC_QUERYBUF, &buffer) < 0) {
            return RET_FAILED;
        }
        void* pStart = mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_nFd,
                            static_cast<off_t>(buffer.m.offset));
        if (MAP_FAILED == pStart) {
            return RET_FAILED;
        }
        m_pBuffers[m_nBuffers] = {pStart, buffer.length};
    }
    return RET_SUCCESS;
}

RET_E V4L2::setFrameRate(const uint32_t& u32Fps)
{
    LOG(7, "[%d] set frame rate to %u\n", m_nStream, u32Fps);
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (ioctlRetry(m_nFd, VIDIOC_G_PARM, &parm) < 0) {
        LOG(7, "Unable to query that the FPS change is supported\n");
        return RET_SUCCESS;
    }
    if (0 == (parm.parm.capture.capability & V4L2_CAP_TIMEPERFRAME)) {
        LOG(7,
            "Setting FPS on the capture device is not supported, fallback to software framedropping\n");
        return RET_SUCCESS;
    }
    const uint32_t u32Asked = (0xFFFFFFFF == u32Fps) ? 255 : u32Fps;
    parm = {};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {1, u32Asked};
    if (ioctlRetry(m_nFd, VIDIOC_S_PARM, &parm) < 0) {
        LOG(7, "Unable to set the FPS\n");
        return RET_SUCCESS;
    }
    const uint32_t u32Granted = parm.parm.capture.timeperframe.denominator;
    if (u32Granted != u32Asked) {
        LOG(7, "FPS coerced ......: from %d to %d\n", static_cast<int>(u32Asked),
            static_cast<int>(u32Granted));
    }
    if (u32Asked < u32Granted) {
        // Deliberate: a Motion-JPEG camera that grants more than was asked should give all it can.
        parm = {};
        parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        parm.parm.capture.timeperframe = {1, (FRAME_FORMAT_MJPEG == m_nFormat) ? 255 : u32Asked};
        if (ioctlRetry(m_nFd, VIDIOC_S_PARM, &parm) < 0) {
            LOG(7, "Unable to set the FPS\n");
        }
    }
    return RET_SUCCESS;
}
