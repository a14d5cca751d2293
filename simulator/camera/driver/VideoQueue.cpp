// The camera's video buffers: shared memory, and who owns each of them.
#include "VideoQueue.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

const uint32_t PAGE = 4096;
const int GIVEN_BACK = 0xdb; // fills a queued buffer
const uint32_t TIMESTAMP_FLAGS = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_SOE;

} // namespace

VideoQueue::VideoQueue(std::string strDir) : m_strDir(std::move(strDir)) {}

VideoQueue::~VideoQueue()
{
    free();
}

void VideoQueue::free()
{
    if (nullptr != m_pMemory) {
        ::munmap(m_pMemory, static_cast<size_t>(m_u32Stride) * getCount());
        ::unlink(m_strFile.c_str());
        m_pMemory = nullptr;
    }
    m_vecBuffer.clear();
    m_dequeQueued.clear();
    m_dequeDone.clear();
}

int VideoQueue::allocate(uint32_t u32Session, uint32_t u32Count, uint32_t u32Length)
{
    if (m_bStreaming) {
        return EBUSY;
    }
    free();
    m_bNeverQueued = true;
    if (0 == u32Count) {
        return 0;
    }
    char acName[64];
    snprintf(acName, sizeof(acName), "/" CAMERA_BUFFERS_FILE, u32Session, ++m_u32Allocation);
    m_u32Session = u32Session;
    m_strFile = m_strDir + acName;
    m_u32Length = u32Length;
    m_u32Stride = (u32Length + PAGE - 1) / PAGE * PAGE;
    const size_t uSize = static_cast<size_t>(m_u32Stride) * u32Count;

    const int nFd = ::open(m_strFile.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (nFd < 0) {
        return ENOMEM;
    }
    void* pMemory = MAP_FAILED;
    if (0 == ::ftruncate(nFd, static_cast<off_t>(uSize))) {
        pMemory = ::mmap(nullptr, uSize, PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
    }
    ::close(nFd);
    if (MAP_FAILED == pMemory) {
        ::unlink(m_strFile.c_str());
        return ENOMEM;
    }
    m_pMemory = static_cast<uint8_t*>(pMemory);
    m_vecBuffer.resize(u32Count);
    return 0;
}

bool VideoQueue::valid(const CameraBuffer& buffer) const
{
    return V4L2_BUF_TYPE_VIDEO_CAPTURE == buffer.u32Type && buffer.u32Index < getCount();
}

CameraBuffer VideoQueue::report(uint32_t u32Index) const
{
    const Buffer& buffer = m_vecBuffer[u32Index];
    CameraBuffer record = buffer.record;
    record.u32Index = u32Index;
    record.u32Type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    record.u32Memory = V4L2_MEMORY_MMAP;
    record.u32Offset = u32Index * m_u32Stride;
    record.u32Length = m_u32Length;
    record.u32Flags |= TIMESTAMP_FLAGS;
    record.u32Flags |= buffer.u32Mapped > 0 ? V4L2_BUF_FLAG_MAPPED : 0;
    record.u32Flags |= STATE_QUEUED == buffer.eState ? V4L2_BUF_FLAG_QUEUED : 0;
    record.u32Flags |= STATE_DONE == buffer.eState ? V4L2_BUF_FLAG_DONE : 0;
    return record;
}

int VideoQueue::query(CameraBuffer& buffer) const
{
    if (!valid(buffer)) {
        return EINVAL;
    }
    buffer = report(buffer.u32Index);
    return 0;
}

int VideoQueue::enqueue(CameraBuffer& buffer)
{
    if (!valid(buffer) || V4L2_MEMORY_MMAP != buffer.u32Memory ||
        STATE_DEQUEUED != m_vecBuffer[buffer.u32Index].eState) {
        return EINVAL;
    }
    Buffer& own = m_vecBuffer[buffer.u32Index];
    own.eState = STATE_QUEUED;
    memset(m_pMemory + static_cast<size_t>(buffer.u32Index) * m_u32Stride, GIVEN_BACK,
           std::min(own.record.u32BytesUsed, m_u32Length));
    own.record = {};
    m_dequeQueued.push_back(buffer.u32Index);
    m_bNeverQueued = false;
    buffer = report(buffer.u32Index);
    return 0;
}

int VideoQueue::dequeue(CameraBuffer& buffer)
{
    if (V4L2_BUF_TYPE_VIDEO_CAPTURE != buffer.u32Type || !m_bStreaming) {
        return EINVAL;
    }
    if (m_dequeDone.empty()) {
        return EAGAIN;
    }
    const uint32_t u32Index = m_dequeDone.front();
    m_dequeDone.pop_front();
    m_vecBuffer[u32Index].eState = STATE_DEQUEUED;
    buffer = report(u32Index);
    return 0;
}

int VideoQueue::streamOn()
{
    if (m_vecBuffer.empty()) {
        return EINVAL;
    }
    m_bStreaming = true;
    return 0;
}

void VideoQueue::streamOff()
{
    m_bStreaming = false;
    m_bNeverQueued = true;
    m_dequeQueued.clear();
    m_dequeDone.clear();
    for (Buffer& buffer : m_vecBuffer) {
        buffer.eState = STATE_DEQUEUED;
    }
}

int VideoQueue::map(CameraMapping& mapping)
{
    const uint32_t u32Wanted = CAMERA_MAP_SHARED | CAMERA_MAP_READ;
    if (u32Wanted != (mapping.u32Flags & u32Wanted) || m_vecBuffer.empty() ||
        0 != mapping.u32Offset % m_u32Stride || mapping.u32Offset / m_u32Stride >= getCount() ||
        mapping.u32Length > m_u32Stride) {
        return EINVAL;
    }
    mapping.u32Session = m_u32Session;
    mapping.u32Allocation = m_u32Allocation;
    ++m_vecBuffer[mapping.u32Offset / m_u32Stride].u32Mapped;
    return 0;
}

void VideoQueue::unmap(uint32_t u32Offset)
{
    if (m_vecBuffer.empty() || u32Offset / m_u32Stride >= getCount()) {
        return; // of an earlier allocation
    }
    Buffer& buffer = m_vecBuffer[u32Offset / m_u32Stride];
    buffer.u32Mapped -= buffer.u32Mapped > 0 ? 1 : 0;
}

uint32_t VideoQueue::getMapped() const
{
    uint32_t u32Mapped = 0;
    for (const Buffer& buffer : m_vecBuffer) {
        u32Mapped += buffer.u32Mapped;
    }
    return u32Mapped;
}

bool VideoQueue::isHungry() const
{
    return !m_dequeQueued.empty();
}

int VideoQueue::fill(const Fill& frame)
{
    if (m_dequeQueued.empty()) {
        return -1;
    }
    const uint32_t u32Index = m_dequeQueued.front();
    m_dequeQueued.pop_front();
    Buffer& buffer = m_vecBuffer[u32Index];
    const size_t uCopied = std::min<size_t>(frame.pBytes->size(), m_u32Length);
    memcpy(m_pMemory + static_cast<size_t>(u32Index) * m_u32Stride, frame.pBytes->data(), uCopied);
    buffer.eState = STATE_DONE;
    buffer.record.u32Flags = frame.bBroken ? V4L2_BUF_FLAG_ERROR : 0;
    buffer.record.u32BytesUsed = frame.u32BytesUsed;
    buffer.record.u32Field = V4L2_FIELD_NONE;
    buffer.record.u32Sequence = frame.u32Sequence;
    buffer.record.u32Seconds = static_cast<uint32_t>(frame.s64Microseconds / 1000000);
    buffer.record.u32Microseconds = static_cast<uint32_t>(frame.s64Microseconds % 1000000);
    m_dequeDone.push_back(u32Index);
    return static_cast<int>(u32Index);
}

void VideoQueue::cancel()
{
    for (const uint32_t u32Index : m_dequeQueued) {
        m_vecBuffer[u32Index].eState = STATE_DONE;
        m_vecBuffer[u32Index].record.u32Flags = V4L2_BUF_FLAG_ERROR;
        m_dequeDone.push_back(u32Index);
    }
    m_dequeQueued.clear();
}

uint32_t VideoQueue::getCount() const
{
    return static_cast<uint32_t>(m_vecBuffer.size());
}

bool VideoQueue::isStreaming() const
{
    return m_bStreaming;
}

bool VideoQueue::isReadable() const
{
    // The kernel answers a poll with an error while nothing streams or was ever queued.
    return !m_bStreaming || m_bNeverQueued || !m_dequeDone.empty();
}
