// The rules between the service, the operator and the controller: what the operator wishes.
#include <cstring>

#include "Interlock.h"
#include "InterlockTimes.h"

static const int64_t MAX_LEASE = 10 * SECOND;

WISH_E Interlock::raise(int64_t s64NowUs)
{
    if (LEVEL_DARK != m_eLevel) {
        return WISH_LEVEL;
    }
    if (OFF_SEEN != m_eOff || !m_bPort) {
        return WISH_BEAM;
    }
    if (isUnderWay(s64NowUs)) {
        return WISH_BUSY;
    }
    setLevel(LEVEL_MOTION);
    m_s64AskUs = s64NowUs;
    m_s64SilentUs = 0;
    lightPilot(s64NowUs);
    return WISH_DONE;
}

WISH_E Interlock::drop(int64_t s64NowUs)
{
    if (LEVEL_DARK == m_eLevel) {
        return WISH_LEVEL;
    }
    if (LEVEL_JOB == m_eLevel || isUnderWay(s64NowUs)) {
        trip(TRIP_OPERATOR, 0, s64NowUs);
        return WISH_DONE;
    }
    (void)send(m_language.getLaserOff(), EXPECT_NOTHING, s64NowUs);
    freeSlot();
    m_bTakePosition = false;
    setLevel(LEVEL_DARK);
    return WISH_DONE;
}

void Interlock::off(int64_t s64NowUs)
{
    trip(TRIP_OPERATOR, 0, s64NowUs);
}

void Interlock::shutdown(int64_t s64NowUs)
{
    trip(TRIP_SHUTDOWN, 0, s64NowUs);
}

WISH_E Interlock::home(int64_t s64NowUs)
{
    if (LEVEL_MOTION != m_eLevel) {
        return WISH_LEVEL;
    }
    if (isUnderWay(s64NowUs)) {
        return WISH_BUSY;
    }
    if (m_bHoming) {
        beginMove(true, false, 0, s64NowUs);
    } else {
        m_bTakePosition = true;
        m_s64AskUs = s64NowUs;
    }
    return WISH_DONE;
}

WISH_E Interlock::unlock(int64_t s64NowUs)
{
    if (LEVEL_DARK != m_eLevel) {
        return WISH_LEVEL;
    }
    if (OFF_SEEN != m_eOff) {
        return WISH_BEAM;
    }
    if (!send(m_language.getUnlock(), EXPECT_NOTHING, s64NowUs)) {
        return WISH_BUSY;
    }
    m_check.losePosition();
    return WISH_DONE;
}

WISH_E Interlock::openJob(const char* pText, size_t uSize, int64_t s64LeaseUs, int64_t s64NowUs)
{
    if (LEVEL_JOB == m_eLevel) {
        return WISH_LEVEL;
    }
    if (OFF_SEEN != m_eOff || !m_bPort) {
        return WISH_BEAM;
    }
    if (!isQuiet(s64NowUs)) {
        return WISH_BUSY;
    }
    if (!m_check.isPositionKnown()) {
        return WISH_NOT_HOMED;
    }
    if (m_language.needsLaserMode() && !m_bLaserMode) {
        return WISH_LASER_MODE;
    }
    if (s64LeaseUs < 0 || s64LeaseUs > MAX_LEASE) {
        return WISH_LEASE;
    }
    freeSlot();
    m_job.open(pText, uSize);
    m_bEndDue = m_bEndDue || m_job.isDone();
    m_eJob = JOB_RUNNING;
    m_bAnswered = false;
    m_bHeld = false;
    m_bHoldTold = false;
    m_nStray = 0;
    m_s64LeaseUs = s64LeaseUs;
    m_s64LeaseEndUs = s64NowUs + s64LeaseUs;
    m_s64AskUs = s64NowUs;
    m_s64SilentUs = 0;
    setLevel(LEVEL_JOB);
    drainIfDone(s64NowUs);
    return WISH_DONE;
}

WISH_E Interlock::renewLease(int64_t s64NowUs)
{
    if (LEVEL_JOB != m_eLevel) {
        return WISH_LEVEL;
    }
    m_s64LeaseEndUs = s64NowUs + m_s64LeaseUs;
    return WISH_DONE;
}

WISH_E Interlock::pause(int64_t s64NowUs)
{
    if (LEVEL_JOB != m_eLevel || (JOB_RUNNING != m_eJob && JOB_DRAINING != m_eJob)) {
        return WISH_LEVEL;
    }
    m_actions.toController(m_language.getHold(), strlen(m_language.getHold()));
    m_actions.tell(NOTICE_PAUSING, 0);
    if (!m_bHeld) {
        m_s64HeldUs = s64NowUs;
    }
    m_eJob = JOB_PAUSING;
    m_s64JobStepUs = s64NowUs + STEP_TIME;
    m_s64AskUs = s64NowUs;
    if (!m_language.hasReports()) {
        (void)send(m_language.getProbe(), EXPECT_PROBE_HELD, s64NowUs);
    }
    if (m_slot.bWaiting) {
        answerHeld(1, s64NowUs);
    }
    return WISH_DONE;
}

WISH_E Interlock::resume(int64_t s64NowUs)
{
    if (LEVEL_JOB != m_eLevel || JOB_PAUSED != m_eJob) {
        return WISH_LEVEL;
    }
    if (m_language.isResumeAnswered()) {
        (void)send(m_language.getResume(), EXPECT_NOTHING, s64NowUs);
    } else {
        m_actions.toController(m_language.getResume(), strlen(m_language.getResume()));
    }
    m_bHeld = true; // the pause's time does not count
    setHeld(false, s64NowUs);
    m_eJob = JOB_RUNNING;
    m_s64AnsweredUs = s64NowUs;
    m_actions.tell(NOTICE_RESUMED, 0);
    drainIfDone(s64NowUs);
    return WISH_DONE;
}

void Interlock::clearReset()
{
    m_bResetHeld = false;
    m_actions.holdReset(false);
}
