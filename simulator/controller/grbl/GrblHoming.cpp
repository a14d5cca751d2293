// A homing run of Grbl 1.1: how long it takes, where the head is meanwhile, where it ends.
#include "GrblHoming.h"

#include <algorithm>
#include <cmath>

static const double SECONDS_PER_MINUTE = 60;
static const double US_PER_SECOND = 1e6;

void GrblHoming::begin(const Point& from, int64_t s64NowUs, const GrblSettings& settings,
                       double dSpeedUp)
{
    m_from = from;
    m_s64FromUs = s64NowUs;
    double dWay = 0;
    for (const double dAxis : from) {
        dWay = std::max(dWay, std::fabs(dAxis));
    }
    const double dPullOff = settings.get(GrblSettings::HOMING_PULL_OFF);
    const double dMinutes = dWay / std::max(1.0, settings.get(GrblSettings::HOMING_SEEK)) +
                            2 * dPullOff / std::max(1.0, settings.get(GrblSettings::HOMING_FEED));
    const double dSeconds = dMinutes * SECONDS_PER_MINUTE / dSpeedUp +
                            4 * settings.get(GrblSettings::HOMING_DEBOUNCE_MS) / 1000;
    m_s64EndUs = s64NowUs + static_cast<int64_t>(dSeconds * US_PER_SECOND);
}

Point GrblHoming::getPosition(int64_t s64NowUs) const
{
    const auto dAll = static_cast<double>(m_s64EndUs - m_s64FromUs);
    const double dShare = static_cast<double>(s64NowUs - m_s64FromUs) / dAll;
    return {m_from[0] * (1 - dShare), m_from[1] * (1 - dShare), m_from[2] * (1 - dShare)};
}

Point GrblHoming::getHome(const GrblSettings& settings)
{
    const auto nDirection = static_cast<unsigned>(settings.get(GrblSettings::HOMING_DIRECTION));
    const double dPullOff = settings.get(GrblSettings::HOMING_PULL_OFF);
    Point home{};
    for (size_t i = 0; i < home.size(); ++i) {
        const double dTravel = settings.get(GrblSettings::TRAVEL + static_cast<int>(i));
        home[i] = (0 != (nDirection >> i & 1U)) ? dPullOff - dTravel : -dPullOff;
    }
    return home;
}
