// A program's side of the camera, for the tests: plain device calls, each with its error number.
#include "VideoClient.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <unistd.h>

VideoClient::VideoClient(int nFlags) : m_nFd(::open("/dev/video0", nFlags))
{
    m_nError = m_nFd < 0 ? errno : 0;
}

VideoClient::VideoClient() : VideoClient(O_RDWR | O_NONBLOCK | O_CLOEXEC) {}

VideoClient::~VideoClient()
{
    (void)unmapBuffers();
    if (m_nFd >= 0) {
        ::close(m_nFd);
    }
}

int VideoClient::descriptor() const
{
    return m_nFd;
}

int VideoClient::error() const
{
    return m_nError;
}

int VideoClient::close()
{
    const int nResult = ::close(m_nFd);
    m_nFd = -1;
    return 0 == nResult ? 0 : errno;
}

int VideoClient::doControl(unsigned long nRequest, void* pArgument)
{
    return 0 == ::ioctl(m_nFd, nRequest, pArgument) ? 0 : errno;
}

int VideoClient::setFormat(uint32_t u32PixelFormat, uint32_t u32Width, uint32_t u32Height,
                           v4l2_format* pGranted)
{
    v4l2_format format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.pixelformat = u32PixelFormat;
    format.fmt.pix.width = u32Width;
    format.fmt.pix.height = u32Height;
    format.fmt.pix.field = V4L2_FIELD_INTERLACED;
    const int nError = control(VIDIOC_S_FMT, format);
    if (nullptr != pGranted) {
        *pGranted = format;
    }
    return nError;
}

int VideoClient::setInterval(uint32_t u32Numerator, uint32_t u32Denominator, v4l2_fract* pGranted)
{
    v4l2_streamparm parm{};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.timeperframe = {u32Numerator, u32Denominator};
    const int nError = control(VIDIOC_S_PARM, parm);
    if (nullptr != pGranted) {
        *pGranted = parm.parm.capture.timeperframe;
    }
    return nError;
}

int VideoClient::requestBuffers(uint32_t u32Count, uint32_t* pGranted)
{
    v4l2_requestbuffers request{};
    request.count = u32Count;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    const int nError = control(VIDIOC_REQBUFS, request);
    if (nullptr != pGranted) {
        *pGranted = request.count;
    }
    return nError;
}

int VideoClient::queryBuffer(uint32_t u32Index, v4l2_buffer& buffer)
{
    buffer = {};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = u32Index;
    return control(VIDIOC_QUERYBUF, buffer);
}

int VideoClient::mapBuffers(uint32_t u32Count)
{
    for (uint32_t i = 0; i < u32Count; ++i) {
        v4l2_buffer buffer{};
        const int nError = queryBuffer(i, buffer);
        if (0 != nError) {
            return nError;
        }
        void* pStart = ::mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_nFd,
                              buffer.m.offset);
        if (MAP_FAILED == pStart) {
            return errno;
        }
        m_vecMapping.push_back({pStart, buffer.length});
    }
    return 0;
}

int VideoClient::unmapBuffers()
{
    for (const Mapping& mapping : m_vecMapping) {
        if (0 != ::munmap(mapping.pStart, mapping.uLength)) {
            return errno;
        }
    }
    m_vecMapping.clear();
    return 0;
}

int VideoClient::enqueue(uint32_t u32Index)
{
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    buffer.index = u32Index;
    return control(VIDIOC_QBUF, buffer);
}

int VideoClient::dequeue(v4l2_buffer& buffer)
{
    buffer = {};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    return control(VIDIOC_DQBUF, buffer);
}

int VideoClient::streamOn()
{
    int nType = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return control(VIDIOC_STREAMON, nType);
}

int VideoClient::streamOff()
{
    int nType = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return control(VIDIOC_STREAMOFF, nType);
}

int VideoClient::startStreaming()
{
    for (const int nError :
         {requestBuffers(2), mapBuffers(2), enqueue(0), enqueue(1), streamOn()}) {
        if (0 != nError) {
            return nError;
        }
    }
    return 0;
}

bool VideoClient::readable(int nTimeoutMs) const
{
    fd_set set;
    FD_ZERO(&set);
    FD_SET(m_nFd, &set);
    timeval timeout{nTimeoutMs / 1000, nTimeoutMs % 1000 * 1000L};
    return 1 == ::select(m_nFd + 1, &set, nullptr, nullptr, &timeout);
}

std::vector<uint8_t> VideoClient::bytes(const v4l2_buffer& buffer) const
{
    const Mapping& mapping = m_vecMapping.at(buffer.index);
    const uint8_t* pStart = static_cast<const uint8_t*>(mapping.pStart);
    return {pStart, pStart + std::min<size_t>(buffer.bytesused, mapping.uLength)};
}
