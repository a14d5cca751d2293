// How often the guard has tripped, by reason, for who watches many arms.
#include "TripCount.h"

#include "NoticeText.h"

static const char* getName(size_t uReason)
{
    return (TRIP_NONE == uReason) ? "other" : getTripName(static_cast<TRIP_E>(uReason));
}

void TripCount::add(const std::string& strReason)
{
    size_t uReason = TRIP_SHUTDOWN;
    while (uReason > TRIP_NONE && getName(uReason) != strReason) {
        uReason--;
    }
    m_aTrips.at(uReason)++;
}

std::string TripCount::tell(const std::string& strName) const
{
    std::string strText;
    for (size_t u = 0; u < m_aTrips.size(); u++) {
        strText +=
            strName + "{reason=\"" + getName(u) + "\"} " + std::to_string(m_aTrips.at(u)) + "\n";
    }
    return strText;
}
