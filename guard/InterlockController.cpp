// The rules between the service, the operator and the controller: what the controller answers.
#include <algorithm>

#include "Interlock.h"
#include "InterlockTimes.h"
#include "ServiceAnswer.h"

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
        } else if (bDark && isGreetingDue(s64NowUs) && !isSendingFirmware()) {
            onGreetingAgain(s64NowUs);
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
        onGreeting(s64NowUs);
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

void Interlock::onGreeting(int64_t s64NowUs)
{
    m_nGreetingsDue = isGreetingDue(s64NowUs) ? m_nGreetingsDue - 1 : 0;
    if (m_language.hasReports()) {
        m_eOff = OFF_GREETED;
        m_s64AskUs = s64NowUs;
    } else {
        offSeen(s64NowUs);
    }
}

/** A beam off that was told twice has reset the controller twice: what was asked between is lost.
 */
void Interlock::onGreetingAgain(int64_t s64NowUs)
{
    forget(s64NowUs);
    m_s64OffUs = s64NowUs + OFF_REPEAT;
    onGreeting(s64NowUs);
}

/** What the oldest answer is to; it is none of those any more. */
Interlock::Expected Interlock::takeExpected()
{
    const Expected expected = m_aExpected[0];
    std::copy(m_aExpected.begin() + 1, m_aExpected.begin() + static_cast<ptrdiff_t>(m_uExpected),
              m_aExpected.begin());
    --m_uExpected;
    m_uOutstanding -= expected.uBytes;
    return expected;
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
    const Expected expected = takeExpected();
    if (!bOk && LEVEL_JOB == m_eLevel && EXPECT_NOTHING != expected.eKind) {
        trip(TRIP_ERROR, nCode, s64NowUs);
        return;
    }
    if (EXPECT_LINE != expected.eKind) {
        m_nStatus = 0; // belonged to this answer
    }
    switch (expected.eKind) {
    case EXPECT_NOTHING:
    case EXPECT_LIGHT:
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
