// The arm of the virtual controller in the arm's own language: head, laser and pilot spot.
#include "VirtualArm.h"

#include <cmath>
#include <utility>

static const double POWER_UP_FEED = 1000; // millimetres per minute
static const double HOMING_FEED = 3000;
static const double FULL_POWER = 1000; // of a laser that nobody has told a power

VirtualArm::VirtualArm(const ControllerSettings& settings, ControllerJournal& journal)
    : m_settings(settings), m_journal(journal), m_beamLog(journal),
      m_motion(settings.dSpeedUp, settings.s64SettleUs), m_bPilotOn(!settings.bPilotOff),
      m_dFeed(POWER_UP_FEED)
{
    m_motion.setPosition(settings.powerUpPosition);
    setLaser({settings.bPowerUpLaserOn, settings.bPowerUpLaserOn ? FULL_POWER : 0});
}

void VirtualArm::onBeam(BeamSink sink)
{
    m_motion.onBeam([this, sink = std::move(sink)](const BeamStroke& stroke) {
        if (!isDarkened()) {
            sink(stroke);
        }
    });
}

bool VirtualArm::carryOut(const ParsedLine& line)
{
    const bool bRelative = line.bRelative || (m_bRelative && !line.bAbsolute);
    Point target = m_motion.getDestination();
    const Point base = bRelative ? target : Point{};
    target[0] = line.bHasX ? base[0] + line.dX : target[0];
    target[1] = line.bHasY ? base[1] + line.dY : target[1];
    target[2] = line.bHasZ ? base[2] + line.dZ : target[2];
    for (const double dAxis : target) {
        if (std::fabs(dAxis) > MAX_TRAVEL_MM) {
            return false;
        }
    }
    m_bRelative = bRelative;
    m_dFeed = line.bHasF ? line.dF : m_dFeed;
    if (line.bHasS || LASER_AS_IT_IS != line.eLaser) {
        m_laser.dPower = line.bHasS ? line.dS : m_laser.dPower;
        m_laser.bOn = (LASER_AS_IT_IS == line.eLaser) ? m_laser.bOn : LASER_ON == line.eLaser;
        m_motion.queueLaser(m_laser);
    }
    if (line.bDwell) {
        m_motion.queueDwell(line.dP);
    }
    if (LINE_KIND_ACCEPTED != line.eKind) {
        const bool bPositioning = LINE_KIND_POSITION == line.eKind;
        m_motion.queueMove(target, m_dFeed, bPositioning);
        if (bPositioning) {
            m_deqHoming.push_back(false);
        }
    }
    return true;
}

void VirtualArm::home()
{
    m_motion.queueMove({}, HOMING_FEED, true);
    m_deqHoming.push_back(true);
}

unsigned VirtualArm::advance(int64_t s64NowUs)
{
    m_s64BusyUs = m_motion.isIdle() ? m_s64BusyUs : s64NowUs;
    return m_motion.advance(s64NowUs);
}

void VirtualArm::endMove()
{
    if (!m_deqHoming.empty()) { // an alarm may have come with the move before
        m_bHomed = m_bHomed || m_deqHoming.front();
        m_deqHoming.pop_front();
    }
}

int64_t VirtualArm::getIdleOffUs() const
{
    const bool bIdleOff = m_settings.s64IdleOffUs > 0 && m_laser.bOn && m_motion.isIdle();
    return bIdleOff ? m_s64BusyUs + m_settings.s64IdleOffUs : -1;
}

void VirtualArm::tireOfIdling(int64_t s64NowUs)
{
    const int64_t s64OffUs = getIdleOffUs();
    if (s64OffUs >= 0 && s64NowUs >= s64OffUs) {
        setLaser({false, m_laser.dPower});
        m_journal.record(s64NowUs, "idle", "laser off");
        tellBeam(s64NowUs);
    }
}

void VirtualArm::hold(bool bHeld)
{
    m_bHeld = bHeld;
    m_motion.setHeld(bHeld);
}

void VirtualArm::alarm()
{
    m_motion.clear();
    m_deqHoming.clear();
    m_bHomed = false;
    if (!m_settings.bAlarmKeepsLaser) {
        setLaser({false, m_laser.dPower});
    }
}

void VirtualArm::forgetJob()
{
    m_motion.clear();
    m_deqHoming.clear();
    m_motion.setHeld(false);
    m_bHeld = false;
    m_bHomed = false;
    m_bRelative = false;
    m_dFeed = POWER_UP_FEED;
}

void VirtualArm::reset(int64_t s64NowUs)
{
    forgetJob();
    setLaser({});
    tellBeam(s64NowUs);
}

void VirtualArm::restart(int64_t s64NowUs)
{
    forgetJob();
    m_bPilotOn = !m_settings.bPilotOff;
    setLaser({m_settings.bResetLaserOn, m_settings.bResetLaserOn ? FULL_POWER : 0});
    tellBeam(s64NowUs);
}

void VirtualArm::setLaser(const Laser& laser)
{
    m_laser = laser;
    m_motion.setLaser(laser);
}

void VirtualArm::tellBeam(int64_t s64NowUs)
{
    for (const Motion::Change& change : m_motion.takeChanges()) {
        updateBeam(change.s64AtUs, change.laser, change.bMoving);
    }
    updateBeam(s64NowUs, m_motion.getLaser(), m_motion.isMoving());
}

void VirtualArm::updateBeam(int64_t s64AtUs, const Laser& laser, bool bMoving)
{
    m_beamLog.update(s64AtUs,
                     {laser.bOn && laser.dPower > 0 && !isDarkened(), laser.dPower, bMoving});
}

/** Whether a hold keeps the light back. */
bool VirtualArm::isDarkened() const
{
    return m_bHeld && !m_settings.bHoldKeepsLaser;
}
