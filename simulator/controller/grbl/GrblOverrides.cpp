// The overrides of Grbl 1.1: shares of the programmed feed, rapid speed and spindle power.
#include "GrblOverrides.h"

#include <algorithm>
#include <tuple>

bool GrblOverrides::take(unsigned char uByte)
{
    static const int STEPS[] = {10, -10, 1, -1};
    const auto step = [](int nShare, int nStep) { return std::clamp(nShare + nStep, 10, 200); };
    const auto former = std::make_tuple(m_nFeed, m_nRapid, m_nSpindle);
    if (uByte >= 0x90 && uByte <= 0x94) {
        m_nFeed = (0x90 == uByte) ? 100 : step(m_nFeed, STEPS[uByte - 0x91]);
    } else if (uByte >= 0x95 && uByte <= 0x97) {
        m_nRapid = (0x95 == uByte) ? 100 : (0x96 == uByte) ? 50 : 25;
    } else if (uByte >= 0x99 && uByte <= 0x9d) {
        m_nSpindle = (0x99 == uByte) ? 100 : step(m_nSpindle, STEPS[uByte - 0x9a]);
    }
    return former != std::make_tuple(m_nFeed, m_nRapid, m_nSpindle);
}

std::string GrblOverrides::format() const
{
    return std::to_string(m_nFeed) + "," + std::to_string(m_nRapid) + "," +
           std::to_string(m_nSpindle);
}
