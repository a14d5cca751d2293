// The rules between the service, the operator and the controller: what the controller tells of
// itself.
#include "Interlock.h"
#include "InterlockTimes.h"
#include "ServiceAnswer.h"

static const int64_t STATUS_ALONE = 50 * MS; // the answer behind a status comes in the same write
static const int IDLE_REPORTS = 2;           // one alone may stand between a line and its motion

void Interlock::onStatus(int nCode, int64_t s64NowUs)
{
    if (1 == m_nStatus || 3 == m_nStatus) {
        onStatusAlone(s64NowUs); // this one belongs to the next line
    }
    if (0 == m_uExpected) {
        m_actions.tell(NOTICE_STATUS, nCode);
        return;
    }
    m_nStatus = nCode;
    m_s64StatusUs = (1 == nCode || 3 == nCode) ? s64NowUs + STATUS_ALONE : NEVER;
}

/** A held controller has not taken the line. */
void Interlock::onStatusAlone(int64_t s64NowUs)
{
    const int nCode = m_nStatus;
    m_nStatus = 0;
    if (0 == m_uExpected) {
        return;
    }
    const Expected expected = takeExpected();
    if (EXPECT_PROBE_HELD == expected.eKind) {
        if (JOB_PAUSING == m_eJob) {
            m_eJob = JOB_PAUSED;
            m_actions.tell(NOTICE_PAUSED, 0);
        }
        return;
    }
    if (EXPECT_MOVE == expected.eKind) {
        onMoveAnswer(false, CODE_CONTROLLER, s64NowUs);
        return;
    }
    setHeld(true, s64NowUs);
    if (EXPECT_LINE == expected.eKind) {
        m_slot.eState = SLOT_KEPT;
        m_check = m_beforeSlot; // it moved nothing, and comes again
        if (m_slot.bWaiting) {
            answerHeld(nCode, s64NowUs);
        }
    } else if (EXPECT_PROBE_IDLE == expected.eKind) {
        m_s64ProbeUs = s64NowUs + PROBE_AGAIN;
    }
}

void Interlock::onReport(const Reply& reply, int64_t s64NowUs)
{
    m_s64SilentUs = 0;
    if (LEVEL_JOB != m_eLevel && reply.bSpindle) {
        trip(TRIP_BEAM_SEEN, 0, s64NowUs);
        return;
    }
    if (LEVEL_DARK == m_eLevel) {
        return;
    }
    if (RUN_ALARM == reply.eRun) {
        const bool bHoming = m_move.bHome && MOVE_SENT == m_move.eState;
        if (m_check.isPositionKnown() || (MOVE_NONE != m_move.eState && !bHoming)) {
            trip(TRIP_ALARM, 0, s64NowUs);
        }
        return; // else locked until homed, as after every reset
    }
    const bool bIdle = RUN_IDLE == reply.eRun;
    if (m_bTakePosition && bIdle && reply.bPosition) {
        m_bTakePosition = false;
        m_check.setPosition(reply.position);
        m_actions.tell(NOTICE_HOMED, 0);
    }
    if (MOVE_TAKEN == m_move.eState) {
        m_move.nIdleReports = bIdle ? m_move.nIdleReports + 1 : 0;
        if (m_move.nIdleReports >= IDLE_REPORTS && (!m_move.bHome || reply.bPosition)) {
            if (m_move.bHome) {
                m_check.setPosition(reply.position);
            }
            endMove(s64NowUs);
        }
    }
    const bool bHold = RUN_HELD == reply.eRun || RUN_SLOWING == reply.eRun;
    if (JOB_PAUSING == m_eJob) {
        if (RUN_HELD == reply.eRun && !reply.bSpindle) {
            m_eJob = JOB_PAUSED;
            m_actions.tell(NOTICE_PAUSED, 0);
        }
    } else if (JOB_RUNNING == m_eJob || JOB_DRAINING == m_eJob) {
        setHeld(bHold, s64NowUs);
        m_nIdleReports = bIdle ? m_nIdleReports + 1 : 0;
        if (JOB_DRAINING == m_eJob && m_nIdleReports >= IDLE_REPORTS) {
            m_eJob = JOB_ENDING;
            m_bEndTaken = false;
            m_s64JobStepUs = s64NowUs + STEP_TIME;
            (void)send(m_language.getLaserOff(), EXPECT_END, s64NowUs); // END_LATE, if unsent
        }
    } else if (JOB_ENDING == m_eJob && m_bEndTaken && bIdle && !reply.bSpindle) {
        endJob(s64NowUs);
    }
}

/** By the controller itself; times do not run meanwhile. */
void Interlock::setHeld(bool bHeld, int64_t s64NowUs)
{
    if (bHeld == m_bHeld) {
        return;
    }
    m_bHeld = bHeld;
    if (bHeld) {
        m_s64HeldUs = s64NowUs;
        m_actions.tell(NOTICE_HELD, 0);
        if (m_slot.bWaiting && SLOT_SENT == m_slot.eState && m_language.hasReports()) {
            answerHeld(1, s64NowUs);
        }
        return;
    }
    const int64_t s64PauseUs = s64NowUs - m_s64HeldUs;
    m_s64BusyUs += s64PauseUs;
    m_s64JobStepUs += s64PauseUs;
    for (size_t u = 0; u < m_uExpected; ++u) {
        m_aExpected[u].s64ByUs += s64PauseUs;
    }
    m_actions.tell(NOTICE_GOES_ON, 0);
}
