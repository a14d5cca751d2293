// What the virtual controller's laser beam does, and since when.
#include "BeamLog.h"

#include <cstdio>

static const double SECOND_US = 1e6;

static std::string format(const Beam& beam)
{
    char acText[80] = {0};
    snprintf(acText, sizeof(acText), "on=%d power=%.0f moving=%d", beam.bOn ? 1 : 0, beam.dPower,
             beam.bMoving ? 1 : 0);
    return acText;
}

void BeamLog::update(int64_t s64AtUs, const Beam& beam)
{
    const bool bLight = beam.bOn != m_beam.bOn || beam.dPower != m_beam.dPower;
    const bool bMotion = beam.bMoving != m_beam.bMoving;
    if (!bLight && !bMotion) {
        return;
    }
    m_beam = beam;
    m_s64SinceUs = bLight ? s64AtUs : m_s64SinceUs;
    m_s64MovingSinceUs = bMotion ? s64AtUs : m_s64MovingSinceUs;
    m_journal.record(s64AtUs, "beam", format(beam));
}

std::string BeamLog::describe(int64_t s64NowUs) const
{
    char acText[120] = {0};
    snprintf(acText, sizeof(acText), " since=%.6f moving-since=%.6f now=%.6f",
             static_cast<double>(m_s64SinceUs) / SECOND_US,
             static_cast<double>(m_s64MovingSinceUs) / SECOND_US,
             static_cast<double>(s64NowUs) / SECOND_US);
    return format(m_beam) + acText;
}
