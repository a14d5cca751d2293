// Whether the camera still delivers.
#pragma once

#include <atomic>
#include <cstdint>

class Event;

/** Follows every picture from its construction to its destruction. Any thread. */
class PictureWatch
{
public:
    static const uint32_t LOST_MS = 2000; // without a picture

    PictureWatch();
    PictureWatch(const PictureWatch&) = delete;
    PictureWatch& operator=(const PictureWatch&) = delete;
    ~PictureWatch();

    /** Handler of VideoFrameEvent, on the capture thread. @return 0 */
    int onVideoFrame(Event* pEvent);

    /** Pictures so far. */
    uint32_t getCount() const
    {
        return m_u32Count;
    }

    /** Of the last picture; of no meaning before the first. */
    uint32_t getAgeMs() const;
    uint32_t getWidth() const
    {
        return m_u32Width;
    }
    uint32_t getHeight() const
    {
        return m_u32Height;
    }

    /** Whether a picture came within LOST_MS. */
    bool isPresent() const;

private:
    std::atomic<uint32_t> m_u32Count{0};
    std::atomic<uint32_t> m_u32LastMs{0};
    std::atomic<uint32_t> m_u32Width{0};
    std::atomic<uint32_t> m_u32Height{0};
};
