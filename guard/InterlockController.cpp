// The rules between the service, the operator and the controller: what the controller answers.
#include <algorithm>
#include <cstdio>

#include "Interlock.h"

static const int64_t MS = 1000;
static const int64_t SECOND = 1000 * MS;
static const int64_t NEVER = INT64_MAX;

static const int64_t STATUS_ALONE = 50 * MS; // the answer behind a status comes in the same write
static const int64_t PROBE_AGAIN = 200 * MS;
static const int64_t STEP_TIME = SECOND;
static const int IDLE_REPORTS = 2; // one alone may stand between a line and its motion

static const int ERROR_LOCKED = 9;
static const int CODE_CONTROLLER = 25;

namespace {

/** Codes at which the service would send "$X" stay here. */
int toServiceCode(int nCode)
{
    return (2 == nCode || ERROR_LOCKED == nCode || nCode <= 0) ? CODE_CONTROLLER : nCode;
}

} // namespace

void Interlock::onControllerBytes(const char* pBytes, size_t uLength, int64_t s64NowUs)
{
    for (size_t u = 0; u < uLength; ++u) {
        const char c = pBytes[u];
        if ('\n' == c) {
            Reply reply;
            if (!m_fromController.isTooLong()) {
                reply = m_language.parse(m_fromController.getText(), m_fromController.getLength());
            }
            const bool bEmpty = m_fromController.isEmpty();
            m_fromController.clear();
            if (!bEmpty) {
                onReply(reply, s64NowUs);
            }
        } else if ((c < ' ' || c > '~') && '\r' != c) {
            m_fromController.clear();
            onReply({}, s64NowUs); // garbage is no line to wait for
        } else if ('\r' != c) {
            m_fromController.add(c);
        }
    }
}

void Interlock::onReply(const Reply& reply, int64_t s64NowUs)
{
    if (OFF_SEEN != m_eOff) {
        onReplyWhileOff(reply, s64NowUs);
        return;
    }
    const bool bDark = LEVEL_DARK == m_eLevel;
    switch (reply.eKind) {
    case REPLY_OK:
        onAnswer(true, 0, s64NowUs);
        break;
    case REPLY_ERROR:
        onAnswer(false, reply.nCode, s64NowUs);
        break;
    case REPLY_DONE:
        if (MOVE_TAKEN == m_move.eState && !m_language.hasReports()) {
            endMove(s64NowUs);
        } else if (LEVEL_JOB == m_eLevel) {
            trip(TRIP_ANSWER, 0, s64NowUs);
        }
        break;
    case REPLY_STATUS:
        onStatus(reply.nCode, s64NowUs);
        break;
    case REPLY_ALARM:
        trip(TRIP_ALARM, reply.nCode, s64NowUs);
        break;
    case REPLY_GREETING:
        if (FIRMWARE_SETTLING == m_firmware.eState) {
            endFirmware(s64NowUs); // the new firmware starts
        } else {
            trip(TRIP_CONTROLLER_RESET, 0, s64NowUs);
        }
        break;
    case REPLY_REPORT:
        onReport(reply, s64NowUs);
        break;
    case REPLY_LASER_MODE:
        m_bLaserMode = reply.bSpindle;
        m_actions.tell(NOTICE_LASER_MODE, m_bLaserMode ? 1 : 0);
        break;
    case REPLY_SYSTEM:
        if (static_cast<size_t>(reply.nCode) < GcodeCheck::SYSTEMS) {
            m_check.setSystem(static_cast<size_t>(reply.nCode), reply.position);
        } else {
            m_check.setShift(reply.position);
        }
        break;
    case REPLY_NOTE:
        break;
    case REPLY_GARBAGE:
        if (bDark) {
            m_actions.tell(NOTICE_DROPPED, 0);
        } else {
            trip(TRIP_GARBAGE, 0, s64NowUs);
        }
        break;
    }
}

/** Until the beam is seen off nothing else counts. */
void Interlock::onReplyWhileOff(const Reply& reply, int64_t s64NowUs)
{
    if (REPLY_GREETING == reply.eKind) {
        if (m_language.hasReports()) {
            m_eOff = OFF_GREETED;
            m_s64AskUs = s64NowUs;
        } else {
            offSeen(s64NowUs);
        }
        return;
    }
    if (OFF_GREETED != m_eOff) {
        return;
    }
    const bool bLocked = REPLY_ERROR == reply.eKind && ERROR_LOCKED == reply.nCode;
    const bool bDark = REPLY_REPORT == reply.eKind && !reply.bSpindle && RUN_MOVING != reply.eRun;
    m_s64SilentUs = (REPLY_REPORT == reply.eKind) ? 0 : m_s64SilentUs;
    if (bLocked || bDark) {
        offSeen(s64NowUs);
    }
}

void Interlock::onAnswer(bool bOk, int nCode, int64_t s64NowUs)
{
    if (0 == m_uExpected) {
        if (LEVEL_DARK == m_eLevel) {
            m_actions.tell(NOTICE_DROPPED, 0);
        } else {
            trip(TRIP_ANSWER, 0, s64NowUs);
        }
        return;
    }
    const Expected expected = m_aExpected[0];
    std::copy(m_aExpected.begin() + 1, m_aExpected.begin() + static_cast<ptrdiff_t>(m_uExpected),
              m_aExpected.begin());
    --m_uExpected;
    m_uOutstanding -= expected.uBytes;
    if (!bOk && LEVEL_JOB == m_eLevel && EXPECT_NOTHING != expected.eKind) {
        trip(TRIP_ERROR, nCode, s64NowUs);
        return;
    }
    if (EXPECT_LINE != expected.eKind) {
        m_nStatus = 0; // belonged to this answer
    }
    switch (expected.eKind) {
    case EXPECT_NOTHING:
        break;
    case EXPECT_LINE:
        onLineAnswer(bOk, nCode, s64NowUs);
        break;
    case EXPECT_MOVE:
        onMoveAnswer(bOk, nCode, s64NowUs);
        break;
    case EXPECT_PILOT:
        if (MOVE_PILOT == m_move.eState) {
            m_move.eState = MOVE_ENDED;
            m_move.bRefused = !bOk;
            m_move.nCode = toServiceCode(nCode);
            driveMove(s64NowUs);
        }
        break;
    case EXPECT_PROBE_HELD: // taken: so it is not held yet
        m_s64ProbeUs = s64NowUs + PROBE_AGAIN;
        break;
    case EXPECT_PROBE_IDLE:
        if (JOB_DRAINING == m_eJob) {
            m_eJob = JOB_ENDING;
            m_s64JobStepUs = s64NowUs + STEP_TIME;
            (void)send(m_language.getLaserOff(), EXPECT_END, s64NowUs); // END_LATE, if unsent
        }
        break;
    case EXPECT_END:
        m_bEndTaken = true;
        if (JOB_ENDING == m_eJob && !m_language.hasReports()) {
            endJob(s64NowUs);
        }
        break;
    case EXPECT_SETTINGS:
        if (const char* const pLine = m_language.getSettingsLine(++m_uSettings); nullptr != pLine) {
            (void)send(pLine, EXPECT_SETTINGS, s64NowUs);
        }
        break;
    case EXPECT_FIRMWARE:
        onFirmwareAnswer(bOk, nCode, s64NowUs);
        break;
    }
}

void Interlock::onLineAnswer(bool bOk, int nCode, int64_t s64NowUs)
{
    const int nStatus = m_nStatus;
    m_nStatus = 0;
    if (!bOk) { // not in a job
        m_check.losePosition();
        const bool bWaiting = m_slot.bWaiting;
        freeSlot();
        if (bWaiting) {
            refuse(toServiceCode(nCode));
        }
        return;
    }
    if (LEVEL_JOB == m_eLevel) {
        m_job.advance();
    }
    m_slot.eState = SLOT_TAKEN;
    if (!isPausedByOperator()) {
        setHeld(1 == nStatus || 3 == nStatus, s64NowUs);
    }
    if (!m_slot.bWaiting) {
        return;
    }
    if (1 == nStatus || 3 == nStatus) {
        answerHeld(nStatus, s64NowUs);
    } else if (2 == nStatus) {
        freeSlot();
        answerSlot("status:2\nok\n", s64NowUs);
        drainIfDone(s64NowUs);
    } else {
        m_bHoldTold = m_bHoldTold || 4 == nStatus;
        answerTaken(s64NowUs);
    }
}

void Interlock::onMoveAnswer(bool bOk, int nCode, int64_t s64NowUs)
{
    if (MOVE_SENT != m_move.eState) {
        return;
    }
    if (!bOk) {
        m_check.losePosition();
        if (m_move.bForService && !m_move.bFirstTold) {
            refuseTwice(toServiceCode(nCode), s64NowUs);
            m_bMoveRefused = true;
            m_move = {};
        } else {
            m_move.eState = MOVE_ENDED;
            m_move.bRefused = true;
            m_move.nCode = toServiceCode(nCode);
            driveMove(s64NowUs);
        }
        return;
    }
    m_move.eState = MOVE_TAKEN;
    m_move.nIdleReports = 0;
    m_s64AskUs = s64NowUs;
    if (!m_move.bFirstTold) {
        m_move.bFirstTold = true;
        m_move.s64FirstUs = s64NowUs;
        if (m_move.bForService) {
            answer("ok\n");
        }
    }
}

/** The arm is there. */
void Interlock::endMove(int64_t s64NowUs)
{
    m_s64BusyUs = std::min(m_s64BusyUs, s64NowUs);
    if (m_move.bHome) {
        if (!m_language.hasReports()) {
            m_check.setPosition({});
        }
        m_actions.tell(NOTICE_HOMED, 0);
    }
    m_move.eState = MOVE_ENDED;
    if (m_move.nPilot >= 0) {
        m_bPilotOn = 1 == m_move.nPilot;
        m_move.eState = MOVE_PILOT;
        (void)send(m_language.getPilot(m_bPilotOn), EXPECT_PILOT, s64NowUs); // late, if unsent
    }
    driveMove(s64NowUs);
}

/** The service is told, if it waits; the move's time has passed since the first answer. */
void Interlock::finishMove(int64_t /*s64NowUs*/)
{
    const Move move = m_move;
    m_move = {};
    if (!move.bForService) {
        return;
    }
    if (move.bRefused) {
        refuse(move.nCode);
    } else {
        answer((move.nPilot >= 0) ? "done\nok\n" : "done\n");
    }
}

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
    const Expected expected = m_aExpected[0];
    std::copy(m_aExpected.begin() + 1, m_aExpected.begin() + static_cast<ptrdiff_t>(m_uExpected),
              m_aExpected.begin());
    --m_uExpected;
    m_uOutstanding -= expected.uBytes;
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
