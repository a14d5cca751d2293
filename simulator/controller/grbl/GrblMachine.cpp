// The machine of a controller that speaks Grbl 1.1: its states, its motion, its laser.
#include "GrblMachine.h"

#include <algorithm>
#include <cmath>

#include "GrblErrors.h"

static const double SECONDS_PER_MINUTE = 60;
static const double US_PER_SECOND = 1e6;

namespace {

Point plus(const Point& first, const Point& second)
{
    return {first[0] + second[0], first[1] + second[1], first[2] + second[2]};
}

Point minus(const Point& first, const Point& second)
{
    return {first[0] - second[0], first[1] - second[1], first[2] - second[2]};
}

double distance(const Point& first, const Point& second)
{
    const Point way = minus(first, second);
    return std::sqrt(way[0] * way[0] + way[1] * way[1] + way[2] * way[2]);
}

} // namespace

GrblMachine::GrblMachine(const ControllerSettings& options, const GrblSettings& settings,
                         GrblInterpreter& interpreter, ControllerJournal& journal)
    : m_dSpeedUp(options.dSpeedUp), m_settings(settings), m_interpreter(interpreter),
      m_beamLog(journal), m_laser(settings, m_planner), m_origin(options.powerUpPosition)
{
    applySettings();
}

void GrblMachine::applySettings()
{
    Point speed{};
    Point acceleration{};
    for (int i = 0; i < 3; ++i) {
        speed[static_cast<size_t>(i)] =
            m_settings.get(GrblSettings::MAX_RATE + i) / SECONDS_PER_MINUTE;
        acceleration[static_cast<size_t>(i)] = m_settings.get(GrblSettings::ACCELERATION + i);
    }
    m_planner.setLimits(speed, acceleration, m_settings.get(GrblSettings::JUNCTION_DEVIATION));
}

void GrblMachine::reset(bool bLock)
{
    switchOff();
    m_bNeedsReset = false;
    m_bHoldDone = false;
    m_bJogCancel = false;
    m_laser.stop(false);
    m_overrides = GrblOverrides();
    m_planner.setOverrides(m_overrides.getFeed(), m_overrides.getRapid());
    m_eState = bLock ? GRBL_STATE_ALARM : GRBL_STATE_IDLE;
}

/** What resets and alarms have in common. */
void GrblMachine::switchOff()
{
    m_planner.clear();
    m_interpreter.setPosition(m_planner.getPosition());
    m_laser.output(SPINDLE_OFF, 0);
    m_bCoolant = false;
    m_s64SlowDownUs = -1;
    m_s64StandsUs = -1;
    m_s64DwellUs = -1;
    m_homing.end();
}

void GrblMachine::loseOrigin()
{
    m_origin = getPosition();
    m_planner.clear();
    m_planner.setPosition({});
    m_bHomed = false;
}

int GrblMachine::cutShort()
{
    if (!isMoving()) {
        return 0;
    }
    const bool bHoming = m_homing.isActive();
    if (bHoming) {
        endHoming();
    }
    m_bHomed = false;
    return bHoming ? GRBL_ALARM_RESET_IN_HOMING : GRBL_ALARM_RESET_IN_MOTION;
}

void GrblMachine::alarm(bool bNeedsReset)
{
    switchOff();
    m_eState = GRBL_STATE_ALARM;
    m_bNeedsReset = bNeedsReset;
    m_bHomed = false;
}

int64_t GrblMachine::nextEventUs() const
{
    int64_t s64Us = INT64_MAX;
    const auto consider = [this, &s64Us](int64_t s64AtUs) {
        s64Us = (s64AtUs > m_s64NowUs) ? std::min(s64Us, s64AtUs) : s64Us;
    };
    consider(m_s64SlowDownUs);
    consider(m_s64StandsUs);
    consider(m_s64DwellUs);
    consider(m_homing.getEndUs());
    const auto inSeconds = [this, &consider](double dSeconds) {
        if (dSeconds >= 0) {
            consider(m_s64NowUs + 1 + static_cast<int64_t>(dSeconds / m_dSpeedUp * US_PER_SECOND));
        }
    };
    inSeconds(m_planner.getNextChange());
    if (const double dDark = m_laser.getTimeToDark(); dDark > 0) {
        inSeconds(dDark);
    }
    return (INT64_MAX == s64Us) ? -1 : s64Us;
}

void GrblMachine::stepTo(int64_t s64Us)
{
    const double dSeconds = static_cast<double>(s64Us - m_s64NowUs) / US_PER_SECOND;
    const double dJobSeconds = isMoving() ? dSeconds * m_dSpeedUp : dSeconds;
    const Point from = getPosition();
    const Beam light = m_laser.getLight(m_overrides.getSpindle());
    const double dWholeSpeed = m_laser.getWholeSpeed();
    m_s64NowUs = s64Us;
    if (m_planner.isMoving()) {
        m_planner.advance(dJobSeconds);
    }
    if (!m_beamSink || !light.bOn || dSeconds <= 0) {
        return;
    }
    BeamStroke stroke{from, getPosition(), light.dPower * dJobSeconds};
    if (dWholeSpeed > 0) {
        const double dWholeSeconds = distance(stroke.from, stroke.to) / dWholeSpeed;
        stroke.dEnergy = light.dPower * std::min(dJobSeconds, dWholeSeconds);
    }
    m_beamSink(stroke);
}

bool GrblMachine::isSuspended() const
{
    return isHeld() || GRBL_STATE_HOME == m_eState || GRBL_STATE_SLEEP == m_eState || m_bNeedsReset;
}

void GrblMachine::update()
{
    if (m_homing.isActive() && m_s64NowUs >= m_homing.getEndUs()) {
        endHoming();
    }
    if (m_s64SlowDownUs >= 0 && m_s64NowUs >= m_s64SlowDownUs) {
        m_s64SlowDownUs = -1;
        m_planner.hold();
    }
    const bool bRuns =
        GRBL_STATE_RUN == m_eState || GRBL_STATE_JOG == m_eState || (isHeld() && !m_bHoldDone);
    if (!bRuns || m_planner.isMoving()) {
        m_s64StandsUs = -1;
        return;
    }
    if (m_s64StandsUs < 0) { // the motors' idle delay passes before anything else does
        m_s64StandsUs =
            m_s64NowUs + static_cast<int64_t>(m_settings.get(GrblSettings::IDLE_DELAY_MS)) * 1000;
    }
    if (m_s64NowUs >= m_s64StandsUs) {
        endMotion();
    }
}

/** The head has come to rest, and that has been noticed. */
void GrblMachine::endMotion()
{
    m_s64StandsUs = -1;
    m_s64SlowDownUs = -1;
    if (m_bJogCancel) {
        m_bJogCancel = false;
        m_planner.clear();
        m_interpreter.setPosition(m_planner.getPosition());
        m_eState = GRBL_STATE_IDLE;
    } else if (isHeld()) {
        m_bHoldDone = true;
        m_laser.stop(m_settings.isOn(GrblSettings::LASER_MODE) || GRBL_STATE_DOOR == m_eState);
    } else {
        m_eState = GRBL_STATE_IDLE;
    }
}

bool GrblMachine::isSynced() const
{
    return m_planner.isEmpty() && m_s64StandsUs < 0 && GRBL_STATE_RUN != m_eState &&
           GRBL_STATE_JOG != m_eState;
}

GrblMachine::RESULT_E GrblMachine::carryOut(const GrblAction& action)
{
    const bool bCheck = GRBL_STATE_CHECK == m_eState;
    switch (action.eKind) {
    case GRBL_LIMITS:
        return (!bCheck && isOutside(action.block.target)) ? RESULT_OUTSIDE : RESULT_DONE;
    case GRBL_MOVE:
        return (bCheck || move(action)) ? RESULT_DONE : RESULT_WAIT;
    case GRBL_HOME:
        m_eState = GRBL_STATE_HOME;
        m_homing.begin(getPosition(), m_s64NowUs, m_settings, m_dSpeedUp);
        return RESULT_DONE;
    case GRBL_PAUSE:
        if (bCheck) {
            return RESULT_DONE;
        }
        break;
    default:
        break;
    }
    if (!isSynced()) {
        return RESULT_WAIT;
    }
    switch (action.eKind) {
    case GRBL_COOLANT:
        m_bCoolant = action.bOn && !bCheck;
        return RESULT_DONE;
    case GRBL_SPINDLE:
        m_laser.output(bCheck ? SPINDLE_OFF : action.block.eSpindle, action.block.dPower);
        return RESULT_DONE;
    case GRBL_DWELL:
        return dwell(bCheck ? 0 : action.dSeconds) ? RESULT_DONE : RESULT_WAIT;
    case GRBL_PAUSE:
        beginHold(GRBL_STATE_HOLD);
        return RESULT_DONE;
    default: // GRBL_SYNC
        return RESULT_DONE;
    }
}

bool GrblMachine::move(const GrblAction& action)
{
    if (m_planner.isFull()) {
        return false;
    }
    m_planner.queue(action.block);
    if (m_planner.isMoving() && GRBL_STATE_IDLE == m_eState) {
        m_eState = action.bOn ? GRBL_STATE_JOG : GRBL_STATE_RUN;
    }
    m_s64StandsUs = -1;
    return true;
}

bool GrblMachine::dwell(double dSeconds)
{
    if (m_s64DwellUs < 0) {
        m_s64DwellUs = m_s64NowUs + static_cast<int64_t>(dSeconds * US_PER_SECOND);
    }
    if (m_s64NowUs < m_s64DwellUs) {
        return false;
    }
    m_s64DwellUs = -1;
    return true;
}

void GrblMachine::sleep()
{
    m_eState = GRBL_STATE_SLEEP;
    m_laser.switchOff();
    m_bCoolant = false;
}

bool GrblMachine::isOutside(const Point& target) const
{
    if (!m_settings.isOn(GrblSettings::SOFT_LIMITS)) {
        return false;
    }
    for (size_t i = 0; i < target.size(); ++i) {
        const double dTravel = m_settings.get(GrblSettings::TRAVEL + static_cast<int>(i));
        if (target[i] > 1e-6 || target[i] < -dTravel - 1e-6) {
            return true;
        }
    }
    return false;
}

void GrblMachine::endHoming()
{
    if (m_s64NowUs >= m_homing.getEndUs()) {
        m_origin = {};
        m_planner.setPosition(GrblHoming::getHome(m_settings));
        m_bHomed = true;
    } else { // cut short: the head is somewhere on its way
        m_origin = minus(getPosition(), m_planner.getPosition());
    }
    m_homing.end();
    m_interpreter.setPosition(m_planner.getPosition());
    m_eState = GRBL_STATE_IDLE;
}

Point GrblMachine::getPosition() const
{
    return m_homing.isActive() ? m_homing.getPosition(m_s64NowUs)
                               : plus(m_origin, m_planner.getPosition());
}

void GrblMachine::tellBeam()
{
    m_laser.follow();
    Beam beam = m_laser.getLight(m_overrides.getSpindle());
    beam.bMoving = isMoving();
    m_beamLog.update(m_s64NowUs, beam);
}

GrblStatusReport::Status GrblMachine::getStatus() const
{
    GrblStatusReport::Status status;
    status.strState = getStateName();
    status.bBusy = GRBL_STATE_IDLE != m_eState && GRBL_STATE_ALARM != m_eState;
    status.uMask = static_cast<unsigned>(m_settings.get(GrblSettings::STATUS_REPORT));
    status.machine = m_planner.getPosition();
    status.offset = m_interpreter.getWorkOffset();
    status.uBlocks = m_planner.getFree();
    status.dFeed = m_planner.getSpeed() * SECONDS_PER_MINUTE;
    status.dPower = m_laser.getPower(m_overrides.getSpindle());
    status.strOverrides = m_overrides.format();
    status.strOn = m_laser.format() + (m_bCoolant ? "F" : "");
    return status;
}
