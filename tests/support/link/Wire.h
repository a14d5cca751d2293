// One direction of the link: a bounded queue before a rate, seeded loss, and a delay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <vector>

/** How a direction of the link behaves. */
struct WireOptions
{
    uint64_t u64DelayNs = 0;  // from a packet's last bit to its arrival
    uint64_t u64BitsPerS = 0; // 0: no bound, and no queue
    size_t uQueue = 100;      // packets, the one that is on its way out included
    uint32_t u32LossPerMillion = 0;
    uint32_t u32Seed = 1;
};

/**
 * Takes packets and says when they arrive; moves no data itself and looks at no clock.
 *
 * Times are nanoseconds of one clock and never go back from call to call. One thread.
 */
class Wire
{
public:
    using Packet = std::vector<char>;

    explicit Wire(const WireOptions& options);

    /** A packet enters; dropped when the queue is full, the wire is cut, or by lot. */
    void enter(const char* pData, size_t uSize, uint64_t u64NowNs);

    /** @return when the next packet arrives; UINT64_MAX with none on its way */
    uint64_t getNextNs() const;

    /** Take out the packet that arrives first. @return false when none has arrived yet */
    bool leave(Packet& packet, uint64_t u64NowNs);

    /** Cut: what is on its way is dropped, and what enters, until it is mended. */
    void setCut(bool bCut);

    /** Packets that have arrived, that the full queue dropped, and that were lost by lot. */
    uint32_t getArrived() const
    {
        return m_u32Arrived;
    }
    uint32_t getOverflowed() const
    {
        return m_u32Overflowed;
    }
    uint32_t getLost() const
    {
        return m_u32Lost;
    }

private:
    struct Travelling
    {
        uint64_t u64OutNs; // its last bit is out: no longer in the queue
        bool bLost;
        Packet packet;
    };

    const WireOptions m_options;
    std::mt19937 m_chance;
    std::deque<Travelling> m_queue; // all on their way, also those that left the bounded queue
    uint64_t m_u64FreeNs = 0;       // the last one's last bit
    bool m_bCut = false;
    uint32_t m_u32Arrived = 0;
    uint32_t m_u32Overflowed = 0;
    uint32_t m_u32Lost = 0;
};
