// The camera's video buffers: shared memory, and who owns each of them.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "preload/CameraProtocol.h"

/**
 * The buffer queue of the camera, as the kernel's videobuf2 keeps it: a buffer is dequeued (the
 * program's), queued (the camera's) or done (filled, waiting to be dequeued).
 *
 * The memory of one allocation is one file below the camera's directory; it outlives the allocation
 * where it is still mapped. At most 32 buffers. Functions that answer a call return 0 or an error
 * number. No locking: the camera's lock covers it.
 */
class VideoQueue
{
public:
    explicit VideoQueue(std::string strDir);
    ~VideoQueue();
    VideoQueue(const VideoQueue&) = delete;
    VideoQueue& operator=(const VideoQueue&) = delete;

    /**
     * Replace the buffers by u32Count new ones of u32Length bytes each; 0 frees.
     * @return EBUSY while streaming, ENOMEM when the memory cannot be made
     */
    int allocate(uint32_t u32Session, uint32_t u32Count, uint32_t u32Length);

    /** EINVAL: no such buffer, wrong type or memory. */
    int query(CameraBuffer& buffer) const;
    /** The same, and EINVAL for a buffer that is not the program's. What was in the buffer is
     * overwritten: it is the camera's now. */
    int enqueue(CameraBuffer& buffer);

    /** The oldest filled buffer. EINVAL unless streaming, EAGAIN when none is filled. */
    int dequeue(CameraBuffer& buffer);

    /** EINVAL without buffers; switching on twice succeeds. Switching off returns all buffers. */
    int streamOn();
    void streamOff();

    /** Which allocation to map; EINVAL unless shared, readable, and a buffer starts there. */
    int map(CameraMapping& mapping);
    /** One mapping of the buffer at this offset is gone. */
    void unmap(uint32_t u32Offset);
    /** Mappings that were not undone. */
    uint32_t getMapped() const;

    struct Fill
    {
        const std::vector<uint8_t>* pBytes;
        uint32_t u32BytesUsed; // may differ from the bytes, and exceed the buffer
        uint32_t u32Sequence;
        int64_t s64Microseconds; // CLOCK_MONOTONIC
        bool bBroken;            // flagged as an error
    };

    /** Whether a buffer is queued. */
    bool isHungry() const;
    /** Fill the oldest queued buffer. @return its index, -1 when none is queued */
    int fill(const Fill& frame);

    /** Return every queued buffer empty and broken, as the driver does when the camera goes. */
    void cancel();

    uint32_t getCount() const;
    bool isStreaming() const;
    /**
     * Whether select would find the descriptor readable: a filled buffer, or an error to report.
     */
    bool isReadable() const;

private:
    enum STATE_E
    {
        STATE_DEQUEUED,
        STATE_QUEUED,
        STATE_DONE
    };
    struct Buffer
    {
        STATE_E eState = STATE_DEQUEUED;
        uint32_t u32Mapped = 0; // times
        CameraBuffer record{};
    };

    void free();
    bool valid(const CameraBuffer& buffer) const;
    CameraBuffer report(uint32_t u32Index) const;

    std::string m_strDir;
    std::string m_strFile;
    uint32_t m_u32Session = 0;    // whose buffers they are; names the file
    uint32_t m_u32Allocation = 0; // counts; the same
    uint32_t m_u32Length = 0;
    uint32_t m_u32Stride = 0; // length in whole pages
    uint8_t* m_pMemory = nullptr;
    std::vector<Buffer> m_vecBuffer;
    std::deque<uint32_t> m_dequeQueued;
    std::deque<uint32_t> m_dequeDone;
    bool m_bStreaming = false;
    bool m_bNeverQueued = true; // since streaming was last off
};
