// One USB camera, driven through the Linux V4L2 capture interface with memory-mapped buffers.
#include "V4L2.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sys/mman.h>
#include <sys/time.h>
#include <unistd.h>

#include "Assert.h"
#include "Command.h"
#include "DeviceIo.h"
#include "EventBus.h"
#include "Log.h"
#include "VideoFrameEvent.h"

static const char* const SOURCE_NAME = "videocapture/V4L2";

namespace {

const uint32_t MIN_FRAME = 176; // bytes; less is no whole picture
const uint32_t MAX_TIMEOUTS = 4;

} // namespace

void V4L2::Free::operator()(void* p) const
{
    free(p);
}

V4L2::~V4L2()
{
    releaseDevice();
}

void V4L2::releaseDevice()
{
    for (uint32_t i = 0; i < m_nBuffers; ++i) {
        if (nullptr != m_pBuffers[i].pStart) {
            munmap(m_pBuffers[i].pStart, m_pBuffers[i].u32Length);
        }
    }
    m_pBuffers.reset();
    m_nBuffers = 0;
    if (m_nFd >= 0) {
        close(m_nFd);
        m_nFd = -1;
    }
}

RET_E V4L2::uninit()
{
    if (m_nFd < 0) {
        return RET_FAILED;
    }
    for (uint32_t i = 0; i < m_nBuffers; ++i) {
        MappedBuffer& buffer = m_pBuffers[i];
        if (nullptr != buffer.pStart && 0 != munmap(buffer.pStart, buffer.u32Length)) {
            return RET_FAILED;
        }
        buffer = {};
    }
    m_pBuffers.reset();
    m_nBuffers = 0;
    const int nFd = m_nFd;
    m_nFd = -1; // close(2) gives the number back even when it fails
    return (0 == close(nFd)) ? RET_SUCCESS : RET_FAILED;
}

RET_E V4L2::streamOn()
{
    for (uint32_t i = 0; i < m_nBuffers; ++i) {
        v4l2_buffer buffer{};
        buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = i;
        if (ioctlRetry(m_nFd, VIDIOC_QBUF, &buffer) < 0) {
            return RET_FAILED;
        }
    }
    int nType = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return (ioctlRetry(m_nFd, VIDIOC_STREAMON, &nType) < 0) ? RET_FAILED : RET_SUCCESS;
}

RET_E V4L2::streamOff()
{
    if (m_nFd < 0) {
        return RET_FAILED;
    }
    int nType = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (ioctlRetry(m_nFd, VIDIOC_STREAMOFF, &nType) < 0) {
        perror("VIDIOC_STREAMOFF error\n");
        return RET_FAILED;
    }
    return RET_SUCCESS;
}

RET_E V4L2::getVideoStream(PVENC_FRAME_T& frame, int32_t s32TimeoutMs)
{
    if (m_nFd < 0) {
        return RET_FAILED;
    }
    // A negative wait is an error of select(2), and errors count as readable.
    const uint32_t u32Ms = static_cast<uint32_t>(s32TimeoutMs);
    if (s32TimeoutMs >= 0 && !waitReadable(m_nFd, u32Ms / 1000, u32Ms % 1000 * 1000)) {
        if (++m_nTimeoutCount < MAX_TIMEOUTS) {
            return RET_TIMEOUT;
        }
        m_nTimeoutCount = 0;
        return RET_FAILED;
    }
    const RET_E eRet = dequeue();
    if (RET_SUCCESS != eRet) {
        return eRet;
    }
    ASSERT_AS(m_buf.index < m_nBuffers, "buf.index < n_buffers",
              "RET_E V4L2::getVideoStream(PVENC_FRAME_T&, int32_t)");
    const bool bCamera = 0 == m_nStream || 1 == m_nStream;
    const bool bBroken = 0 != (m_buf.flags & V4L2_BUF_FLAG_ERROR); // the driver says so
    if (bBroken || (bCamera && m_buf.bytesused < MIN_FRAME) || !copyFrame(frame)) {
        LOG(7, "[%d] Ignoring empty buffer ...\n", m_nStream);
        (void)releaseVideoStream(); // a camera that is gone shows itself at the next dequeue
        return RET_AGAIN;
    }
    m_nTimeoutCount = 0;
    VideoFrameEvent event(m_nStream, frame);
    EventBus<VideoFrameEvent>::publish(event);
    return RET_SUCCESS;
}

RET_E V4L2::dequeue()
{
    m_buf = {};
    m_buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    m_buf.memory = V4L2_MEMORY_MMAP;
    if (0 == ioctlRetry(m_nFd, VIDIOC_DQBUF, &m_buf)) {
        return RET_SUCCESS;
    }
    const int nErrno = errno;
    if (EAGAIN == nErrno) {
        LOG_AS("getVideoStream", 7, "VIDIOC_DQBUF EAGAIN!\n");
        return RET_AGAIN;
    }
    if (EIO == nErrno) {
        LOG_AS("getVideoStream", 7, "VIDIOC_DQBUF EIO!\n");
    }
    LOG_AS("getVideoStream", 7, "[%d]VIDIOC_DQBUF FAILED(errno:%d)!\n", m_nStream, nErrno);
    return RET_FAILED;
}

/** @return false when the dequeued buffer holds no frame that can be handed on */
bool V4L2::copyFrame(PVENC_FRAME_T& frame)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    const MappedBuffer& buffer = m_pBuffers[m_buf.index];
    if (m_buf.bytesused > buffer.u32Length) {
        return false;
    }
    VENC_FRAME_T header{};
    header.u32Size = m_buf.bytesused;
    header.u64TimeStamp =
        static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
    header.u32Format = m_nFormat;
    header.u32Width = m_nWidth;
    header.u32Height = m_nHeight;
    PVENC_FRAME_T copy = makeFrame(header, buffer.pStart);
    if (nullptr == copy.get()) {
        return false;
    }
    frame = std::move(copy);
    return true;
}

RET_E V4L2::releaseVideoStream()
{
    if (ioctlRetry(m_nFd, VIDIOC_QBUF, &m_buf) < 0) {
        LOG(7, "release buffer error!\n");
        return RET_FAILED;
    }
    return RET_SUCCESS;
}

RET_E V4L2::setExposure(int32_t s32Value)
{
    char acCommand[130];
    snprintf(acCommand, sizeof(acCommand),
             "v4l2-ctl --set-ctrl=exposure_auto=1;v4l2-ctl --set-ctrl=exposure_absolute=%d",
             s32Value);
    (void)runCommand(acCommand); // without the tool the camera keeps its exposure
    return RET_SUCCESS;
}
