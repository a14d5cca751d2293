// One USB camera, driven through the Linux V4L2 capture interface with memory-mapped buffers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include <linux/videodev2.h>

#include "RetE.h"
#include "VideoFrame.h"

/**
 * Closed -> init -> open, configured and mapped -> streamOn -> streaming -> (getVideoStream,
 * releaseVideoStream)* -> streamOff -> uninit -> closed. After a failure the owner calls init and
 * streamOn on the same object again; whatever the failure left open or mapped is released there.
 *
 * Owns its descriptor (close-on-exec) and its mappings. No locking: one thread at a time, except
 * setExposure, which uses no member. Lines are logged at level 7.
 */
class V4L2
{
public:
    V4L2() = default;
    V4L2(const V4L2&) = delete;
    V4L2& operator=(const V4L2&) = delete;
    ~V4L2();

    /**
     * Find the stream's camera, open and configure it, and map its buffers; doesn't stream yet.
     *
     * Stream 0 asks for 640 x 480, stream 1 for 1280 x 720, both of the camera that UvcProber
     * finds; any other stream takes "/dev/video0" as it is. 25 frames per second are asked for.
     * @return RET_SUCCESS, else RET_FAILED with the device closed; only a failed VIDIOC_QUERYCAP
     *         leaves it open until the next init or uninit
     */
    RET_E init(const int32_t& s32Stream);

    /** Unmap and close. @return RET_FAILED when not open, or at the first step that fails */
    RET_E uninit();

    /** Queue all buffers and begin to stream. @return RET_FAILED at the first failure, unlogged */
    RET_E streamOn();

    /** @return RET_FAILED when not open, or when the driver refuses (reported on standard error) */
    RET_E streamOff();

    /**
     * Wait for the next frame, copy it into a block of its own and publish it as VideoFrameEvent
     * on this thread. After RET_SUCCESS the buffer stays dequeued until releaseVideoStream.
     *
     * @param frame         gets the frame; untouched otherwise
     * @param s32TimeoutMs  milliseconds
     * @return RET_SUCCESS; RET_AGAIN nothing usable came (an empty buffer, one that the
     *         driver flags as broken, no memory), ask again at once; RET_TIMEOUT nothing
     *         came; RET_FAILED the device is not open, the fourth time-out in a row, or the driver
     *         failed: the camera counts as lost
     */
    RET_E getVideoStream(PVENC_FRAME_T& frame, int32_t s32TimeoutMs);

    /** Queue the buffer of the last frame again. @return RET_FAILED (logged) when refused */
    RET_E releaseVideoStream();

    /** Ask for u32Fps frames per second; failures are only logged. @return RET_SUCCESS */
    RET_E setFrameRate(const uint32_t& u32Fps);

    /**
     * Set manual exposure through the v4l2-ctl tool, whose result is ignored. Blocks while the
     * tool runs. Any thread.
     * @param s32Value  as exposure_absolute takes it
     * @return RET_SUCCESS
     */
    RET_E setExposure(int32_t s32Value);

    /** The V4L2 pixel format that init asks for, by frame-format code (FRAME_FORMAT_...). */
    static uint32_t pixelFormat(uint32_t u32Format);

    /** Pixels, as granted by the driver; 0 before. */
    uint32_t getWidth() const
    {
        return m_nWidth;
    }
    uint32_t getHeight() const
    {
        return m_nHeight;
    }

private:
    struct MappedBuffer
    {
        void* pStart; // null when not mapped
        uint32_t u32Length;
    };
    struct Free
    {
        void operator()(void* p) const;
    };

    void releaseDevice();
    RET_E findDevice(char* pName, size_t uSize);
    RET_E openDevice(const char* pName);
    RET_E queryCapability(const char* pName);
    RET_E configure(const char* pName);
    void resetCropping();
    void listFormats();
    RET_E setFormat();
    RET_E mapBuffers(const char* pName);
    RET_E dequeue();
    bool copyFrame(PVENC_FRAME_T& frame);

    int32_t m_nStream = 0;
    int32_t m_nFd = -1; // -1 when closed
    std::unique_ptr<MappedBuffer[], Free> m_pBuffers;
    uint32_t m_nBuffers = 0; // mapped ones
    v4l2_capability m_cap{};
    v4l2_buffer m_buf{};   // last dequeued
    uint32_t m_nWidth = 0; // asked for until VIDIOC_S_FMT, granted from then on
    uint32_t m_nHeight = 0;
    uint32_t m_nFormat = FRAME_FORMAT_MJPEG;
    uint32_t m_nTimeoutCount = 0; // in a row
};
