// One direction of the link: a bounded queue before a rate, seeded loss, and a delay.
#include "Wire.h"

#include <algorithm>
#include <utility>

Wire::Wire(const WireOptions& options) : m_options(options), m_chance(options.u32Seed) {}

void Wire::enter(const char* pData, size_t uSize, uint64_t u64NowNs)
{
    if (m_bCut) {
        return;
    }
    uint64_t u64OutNs = u64NowNs;
    if (m_options.u64BitsPerS > 0) {
        const auto waiting =
            std::count_if(m_queue.begin(), m_queue.end(), [u64NowNs](const Travelling& other) {
                return other.u64OutNs > u64NowNs;
            });
        if (static_cast<size_t>(waiting) >= m_options.uQueue) {
            ++m_u32Overflowed;
            return;
        }
        const uint64_t u64Bits = uint64_t{uSize} * 8;
        u64OutNs = std::max(u64NowNs, m_u64FreeNs) + u64Bits * 1000000000 / m_options.u64BitsPerS;
        m_u64FreeNs = u64OutNs;
    }
    // A lost packet takes its time on the wire, too. One lot for each, so that a seed gives the
    // same losses whatever the times are.
    const bool bLost = m_chance() % 1000000 < m_options.u32LossPerMillion;
    m_queue.push_back({u64OutNs, bLost, bLost ? Packet() : Packet(pData, pData + uSize)});
}

uint64_t Wire::getNextNs() const
{
    return m_queue.empty() ? UINT64_MAX : m_queue.front().u64OutNs + m_options.u64DelayNs;
}

bool Wire::leave(Packet& packet, uint64_t u64NowNs)
{
    while (getNextNs() <= u64NowNs) {
        Travelling first = std::move(m_queue.front());
        m_queue.pop_front();
        if (!first.bLost) {
            ++m_u32Arrived;
            packet = std::move(first.packet);
            return true;
        }
        ++m_u32Lost;
    }
    return false;
}

void Wire::setCut(bool bCut)
{
    m_bCut = bCut;
    m_queue.clear();
    m_u64FreeNs = 0;
}
