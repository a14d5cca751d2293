// How often the guard has tripped, by reason, for who watches many arms.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>

#include "IGuardActions.h"

/** Counts since its construction. Any thread; never blocks. */
class TripCount
{
public:
    /** @param strReason  in the guard's words */
    void add(const std::string& strReason);

    /**
     * The lines of a Prometheus counter, one for each reason, those at 0 too: Prometheus sees no
     * increase where a line begins. Reasons that this build does not know are one, "other".
     */
    std::string tell(const std::string& strName) const;

private:
    std::array<std::atomic<uint32_t>, TRIP_SHUTDOWN + 1> m_aTrips{}; // at TRIP_NONE: others
};
