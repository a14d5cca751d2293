// A program's side of the camera, for the tests: plain device calls, each with its error number.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include <linux/videodev2.h>

/**
 * Opens the camera and makes the calls as any V4L2 program would. Results are 0 or the error number
 * of the call; what was mapped and opened goes with the object.
 */
class VideoClient
{
public:
    /** Opens the node; descriptor() is -1 when that failed, error() says why. */
    explicit VideoClient(int nFlags);
    /** Read-write and not blocking, as the service opens it. */
    VideoClient();
    ~VideoClient();
    VideoClient(const VideoClient&) = delete;
    VideoClient& operator=(const VideoClient&) = delete;

    int descriptor() const;
    int error() const;
    int close();

    /** Any ioctl. */
    template <typename T> int control(unsigned long nRequest, T& argument)
    {
        return doControl(nRequest, &argument);
    }

    int setFormat(uint32_t u32PixelFormat, uint32_t u32Width, uint32_t u32Height,
                  v4l2_format* pGranted = nullptr);
    int setInterval(uint32_t u32Numerator, uint32_t u32Denominator, v4l2_fract* pGranted = nullptr);
    int requestBuffers(uint32_t u32Count, uint32_t* pGranted = nullptr);
    int queryBuffer(uint32_t u32Index, v4l2_buffer& buffer);
    int mapBuffers(uint32_t u32Count);
    int unmapBuffers();
    int enqueue(uint32_t u32Index);
    int dequeue(v4l2_buffer& buffer);
    int streamOn();
    int streamOff();

    /** Two buffers mapped and queued, streaming on; 0 or the first error. */
    int startStreaming();

    /** Whether select finds the descriptor readable within the time. */
    bool readable(int nTimeoutMs) const;

    /** The bytes of a buffer that was dequeued, as far as it is mapped. */
    std::vector<uint8_t> bytes(const v4l2_buffer& buffer) const;

private:
    int doControl(unsigned long nRequest, void* pArgument);

    struct Mapping
    {
        void* pStart;
        size_t uLength;
    };
    int m_nFd = -1;
    int m_nError = 0;
    std::vector<Mapping> m_vecMapping;
};
