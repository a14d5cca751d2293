// The laser of a controller that speaks Grbl 1.1: what its spindle output does.
#include "GrblLaser.h"

#include <algorithm>
#include <cmath>

static const double SEGMENT_SECONDS = 0.01; // measured: the power follows the speed in such steps

void GrblLaser::output(SPINDLE_E eSpindle, double dPower)
{
    m_eSpindle = eSpindle;
    m_dPower = dPower;
}

void GrblLaser::follow()
{
    if (isFollowing()) {
        output(m_planner.getCurrent().eSpindle, m_planner.getCurrent().dPower);
    }
}

bool GrblLaser::isFollowing() const
{
    return m_settings.isOn(GrblSettings::LASER_MODE) && m_planner.isMoving();
}

Beam GrblLaser::getLight(int nShare) const
{
    const SPINDLE_E eSpindle = isFollowing() ? m_planner.getCurrent().eSpindle : m_eSpindle;
    const double dPower = isFollowing() ? m_planner.getCurrent().dPower : m_dPower;
    Beam beam;
    beam.dPower = std::min(dPower * nShare / 100, m_settings.get(GrblSettings::MAX_POWER));
    beam.bOn = SPINDLE_OFF != eSpindle && beam.dPower > 0 && !m_bStopped;
    if (m_settings.isOn(GrblSettings::LASER_MODE) && SPINDLE_DYNAMIC == eSpindle) {
        const double dStop = m_planner.getTimeToStop();
        const bool bLast = dStop >= 0 && dStop <= getLastSegment() + 1e-6;
        beam.bOn = beam.bOn && m_planner.isMoving() && !bLast;
    }
    return beam;
}

double GrblLaser::getPower(int nShare) const
{
    const Beam light = getLight(nShare);
    return light.bOn ? light.dPower * (isScaled() ? m_planner.getSpeedShare() : 1) : 0;
}

bool GrblLaser::isScaled() const
{
    return isFollowing() && SPINDLE_DYNAMIC == m_planner.getCurrent().eSpindle;
}

double GrblLaser::getWholeSpeed() const
{
    return isScaled() ? m_planner.getCurrent().dSpeed : 0;
}

double GrblLaser::getTimeToDark() const
{
    const double dStop = m_planner.getTimeToStop();
    return (dStop < 0) ? -1 : dStop - getLastSegment();
}

/** Seconds of the last step or segment of a block that ends at rest: its power is that of rest. */
double GrblLaser::getLastSegment() const
{
    const double dStep = 1 / std::max(1.0, m_settings.get(GrblSettings::STEPS));
    return std::max(SEGMENT_SECONDS, std::sqrt(2 * dStep / m_planner.getAcceleration()));
}

std::string GrblLaser::format() const
{
    if (SPINDLE_OFF == m_eSpindle || m_bStopped) {
        return "";
    }
    return (SPINDLE_CONSTANT == m_eSpindle) ? "S" : "C";
}
