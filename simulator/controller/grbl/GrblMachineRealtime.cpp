// The machine of a controller that speaks Grbl 1.1: what real-time bytes do to it.
#include "GrblMachine.h"

// Measured at a controller with this firmware: from a hold until it is felt, what is prepared.
static const int64_t SLOW_DOWN_US = 40000;

void GrblMachine::hold()
{
    if (GRBL_STATE_IDLE == m_eState || GRBL_STATE_RUN == m_eState) {
        beginHold(GRBL_STATE_HOLD);
    }
}

void GrblMachine::openDoor()
{
    if (GRBL_STATE_ALARM != m_eState && GRBL_STATE_HOME != m_eState &&
        GRBL_STATE_SLEEP != m_eState) {
        beginHold(GRBL_STATE_DOOR);
    }
}

void GrblMachine::beginHold(GRBL_STATE_E eState)
{
    const bool bFurther = isHeld();
    m_bWasIdle = bFurther ? m_bWasIdle : !m_planner.isMoving() && m_s64StandsUs < 0;
    const bool bAtRest = m_bWasIdle || (bFurther && m_bHoldDone);
    m_eState = eState;
    if (bAtRest) {
        m_bHoldDone = true;
        m_laser.stop(m_laser.isStopped() || m_settings.isOn(GrblSettings::LASER_MODE) ||
                     GRBL_STATE_DOOR == eState);
    } else if (!bFurther) {
        m_bHoldDone = false;
        m_s64SlowDownUs = m_s64NowUs + SLOW_DOWN_US;
    }
}

bool GrblMachine::resume()
{
    if (!isHeld() || !m_bHoldDone) {
        return false; // in the middle of the slow-down it is dropped
    }
    const bool bRestores = m_laser.isStopped() && m_laser.isOutput();
    m_laser.stop(false);
    m_bHoldDone = false;
    m_planner.resume();
    m_eState = m_planner.isEmpty() ? GRBL_STATE_IDLE : GRBL_STATE_RUN;
    return bRestores;
}

bool GrblMachine::cancelJog()
{
    if (GRBL_STATE_JOG != m_eState || m_bJogCancel) {
        return false;
    }
    m_bJogCancel = true;
    m_s64SlowDownUs = m_s64NowUs + SLOW_DOWN_US;
    return true;
}

void GrblMachine::toggleSpindleStop()
{
    if (GRBL_STATE_HOLD == m_eState && m_bHoldDone) {
        m_laser.stop(!m_laser.isStopped());
    }
}

bool GrblMachine::toggleCoolant()
{
    if (GRBL_STATE_IDLE != m_eState && GRBL_STATE_RUN != m_eState && GRBL_STATE_HOLD != m_eState) {
        return false;
    }
    m_bCoolant = !m_bCoolant;
    return true;
}

bool GrblMachine::takeOverride(unsigned char uByte)
{
    const bool bChanged = m_overrides.take(uByte);
    if (bChanged) {
        m_planner.setOverrides(m_overrides.getFeed(), m_overrides.getRapid());
    }
    return bChanged;
}
