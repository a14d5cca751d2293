// The rules between the service, the operator and the controller: what is due, and what is late.
#include <algorithm>
#include <cstring>

#include "Interlock.h"
#include "InterlockTimes.h"

static const int64_t ASK_OFTEN = 50 * MS;    // while something waits for a report
static const int64_t ASK_AT_END = 20 * MS;   // the beam may still be on, with the head at rest
static const int64_t ASK_USUALLY = 200 * MS; // a report takes 5 ms
static const int64_t CONTROLLER_SILENCE = SECOND;
static const int64_t SERVICE_SILENCE = 2 * SECOND;

void Interlock::onTime(int64_t s64NowUs)
{
    if (OFF_SEEN != m_eOff && s64NowUs >= m_s64OffUs) {
        const bool bFailed = !m_bLoaderMayTakeIt;
        m_bLoaderMayTakeIt = false;
        const int nTold = m_nOffTold;
        tellOff(s64NowUs);
        if (bFailed) {
            m_actions.tell(NOTICE_OFF_FAILED, nTold);
        }
        if (bFailed) {
            holdReset();
        }
    }
    if (!m_fromService.isEmpty() && s64NowUs >= m_s64PieceUs + SAME_WRITE) {
        cutShort(s64NowUs);
    }
    if (0 != m_nStatus && s64NowUs >= m_s64StatusUs) {
        onStatusAlone(s64NowUs);
    }
    if (LEVEL_DARK != m_eLevel) {
        if (const TRIP_E eReason = findOverdue(s64NowUs); TRIP_NONE != eReason) {
            trip(eReason, 0, s64NowUs);
            if (TRIP_CONTROLLER_SILENT == eReason ||
                (TRIP_LINE_LATE == eReason && !m_language.hasReports())) {
                holdReset(); // one that hears nothing does not obey either
            }
        }
    } else if (m_uExpected > 0 && s64NowUs >= m_aExpected[0].s64ByUs) {
        m_uExpected = 0; // an answer that nobody needs
        m_uOutstanding = 0;
    }
    onFirmwareTime(s64NowUs);
    answerInTime(s64NowUs);
    driveMove(s64NowUs);
    answerSeconds(s64NowUs);
    if (0 != m_s64ProbeUs && s64NowUs >= m_s64ProbeUs) {
        m_s64ProbeUs = 0;
        if (JOB_PAUSING == m_eJob) {
            (void)send(m_language.getProbe(), EXPECT_PROBE_HELD, s64NowUs);
        } else if (JOB_DRAINING == m_eJob) {
            (void)send(m_language.getPilot(m_bPilotOn), EXPECT_PROBE_IDLE, s64NowUs);
        }
    }
    askIfDue(s64NowUs);
}

/** What has not come in its time, at a level above dark. */
TRIP_E Interlock::findOverdue(int64_t s64NowUs) const
{
    if (LEVEL_JOB == m_eLevel && m_s64LeaseUs > 0 && s64NowUs >= m_s64LeaseEndUs) {
        return TRIP_LEASE;
    }
    if (0 != m_s64SilentUs && s64NowUs >= m_s64SilentUs + CONTROLLER_SILENCE) {
        return TRIP_CONTROLLER_SILENT;
    }
    if (m_uExpected > 0 && !isHolding() && s64NowUs >= m_aExpected[0].s64ByUs) {
        return TRIP_LINE_LATE;
    }
    if (MOVE_NONE != m_move.eState && MOVE_ENDED != m_move.eState &&
        s64NowUs >= m_move.s64LimitUs) {
        return TRIP_LINE_LATE;
    }
    if (s64NowUs >= getServiceDueUs()) {
        return TRIP_SERVICE_SILENT;
    }
    if (JOB_PAUSING == m_eJob && s64NowUs >= m_s64JobStepUs) {
        return TRIP_PAUSE_LATE;
    }
    if (JOB_ENDING == m_eJob && s64NowUs >= m_s64JobStepUs) {
        return TRIP_END_LATE;
    }
    if (JOB_DRAINING == m_eJob && !m_bHeld && s64NowUs >= m_s64JobStepUs) {
        return TRIP_LINE_LATE;
    }
    return TRIP_NONE;
}

/** When the service will have been silent for too long; NEVER while it may be. */
int64_t Interlock::getServiceDueUs() const
{
    const bool bOwesLine = LEVEL_JOB == m_eLevel && JOB_RUNNING == m_eJob && m_bAnswered &&
                           !m_slot.bWaiting && !(m_job.isDone() && SLOT_FREE == m_slot.eState);
    return bOwesLine ? m_s64AnsweredUs + SERVICE_SILENCE : NEVER;
}

void Interlock::askIfDue(int64_t s64NowUs)
{
    const bool bHoming = m_move.bHome && MOVE_SENT == m_move.eState; // Grbl reports nothing then
    if (!m_language.hasReports() || !m_bPort || OFF_SENT == m_eOff || bHoming ||
        s64NowUs < m_s64AskUs) {
        return;
    }
    m_actions.toController(m_language.getQuestion(), strlen(m_language.getQuestion()));
    m_s64AskUs = s64NowUs + getAskPause();
    if (0 == m_s64SilentUs) {
        m_s64SilentUs = s64NowUs;
    }
}

int64_t Interlock::getAskPause() const
{
    if (JOB_DRAINING == m_eJob) {
        return ASK_AT_END;
    }
    if (OFF_GREETED == m_eOff || MOVE_TAKEN == m_move.eState || JOB_PAUSING == m_eJob ||
        JOB_ENDING == m_eJob) {
        return ASK_OFTEN;
    }
    return (LEVEL_DARK == m_eLevel) ? ASK_IN_DARK : ASK_USUALLY;
}

int64_t Interlock::getDeadline() const
{
    int64_t s64Us = (OFF_SEEN != m_eOff) ? m_s64OffUs : NEVER;
    const auto add = [&s64Us](bool bIf, int64_t s64AtUs) {
        s64Us = bIf ? std::min(s64Us, s64AtUs) : s64Us;
    };
    add(!m_fromService.isEmpty(), m_s64PieceUs + SAME_WRITE);
    add(0 != m_nStatus, m_s64StatusUs);
    add(m_uExpected > 0 && !isHolding(), m_aExpected[0].s64ByUs);
    add(m_slot.bWaiting, m_slot.s64AnswerByUs);
    add(isSendingFirmware(), m_firmware.s64ByUs);
    for (size_t u = 0; u < m_uSecond; ++u) {
        add(true, m_aSecond[u].s64DueUs);
    }
    const bool bMove = MOVE_NONE != m_move.eState;
    add(MOVE_ENDED == m_move.eState, m_move.s64FirstUs + SECOND_ANSWER_GAP);
    add(bMove && MOVE_ENDED != m_move.eState, m_move.s64LimitUs);
    add(bMove && m_move.bForService && !m_move.bFirstTold,
        m_move.s64BeganUs +
            ((m_move.bHome && m_language.isHomeAnsweredOnce()) ? HOME_REFUSED_BY : ANSWER_COMMAND));
    add(bMove && m_move.bForService && m_move.bFirstTold, m_move.s64FirstUs + SECOND_ANSWER);
    if (LEVEL_DARK != m_eLevel) {
        add(LEVEL_JOB == m_eLevel && m_s64LeaseUs > 0, m_s64LeaseEndUs);
        add(0 != m_s64SilentUs, m_s64SilentUs + CONTROLLER_SILENCE);
        add(true, getServiceDueUs());
        add(JOB_PAUSING == m_eJob || JOB_ENDING == m_eJob || (JOB_DRAINING == m_eJob && !m_bHeld),
            m_s64JobStepUs);
        add(0 != m_s64ProbeUs, m_s64ProbeUs);
    }
    add(m_language.hasReports() && m_bPort && OFF_SENT != m_eOff &&
            !(m_move.bHome && MOVE_SENT == m_move.eState),
        m_s64AskUs);
    return s64Us;
}
