// The rules between the service, the operator and the controller: levels, trips and beam off.
#include "Interlock.h"

#include <algorithm>
#include <cstring>

#include "InterlockTimes.h"
#include "ServiceAnswer.h"

static const int64_t GREETING_TIME = 2 * OFF_REPEAT;
static const int64_t LOADER_QUIET = 2 * SECOND; // it gives an image up after one of silence

Interlock::Interlock(const ILanguage& language, const GuardLimits& limits, IGuardActions& actions,
                     bool bHoming)
    : m_language(language), m_actions(actions),
      m_check(limits, language.getWords(), language.getPowerUpFeed()), m_bHoming(bHoming),
      m_s64OffUs(NEVER), m_beforeSlot(m_check)
{
}

void Interlock::onPortUp(int64_t s64NowUs)
{
    m_bPort = true;
    m_nGreetingsDue = 0;
    m_fromController.clear();
    forget(s64NowUs);
    startOff(s64NowUs);
}

void Interlock::onPortLost(int64_t s64NowUs)
{
    const bool bMayBurn = LEVEL_DARK != m_eLevel || (m_bPort && OFF_SEEN != m_eOff);
    m_bPort = false;
    if (bMayBurn) { // nothing else reaches the controller
        holdReset();
    }
    if (LEVEL_DARK != m_eLevel) {
        trip(TRIP_CONTROLLER_GONE, 0, s64NowUs);
    } else {
        forget(s64NowUs);
        startOff(s64NowUs);
    }
}

/** Until the operator lets it go. */
void Interlock::holdReset()
{
    if (!m_bResetHeld) {
        m_bResetHeld = true;
        m_actions.holdReset(true);
    }
}

void Interlock::setLevel(LEVEL_E eLevel)
{
    if (eLevel != m_eLevel) {
        m_eLevel = eLevel;
        m_actions.tell(NOTICE_LEVEL, eLevel);
    }
}

void Interlock::trip(TRIP_E eReason, int nDetail, int64_t s64NowUs)
{
    startOff(s64NowUs); // before anything else
    m_actions.tell(NOTICE_TRIP, eReason);
    m_actions.tell(NOTICE_DETAIL, nDetail);
    setLevel(LEVEL_DARK);
    forget(s64NowUs);
}

/** What was under way; who waits for an answer gets one. */
void Interlock::forget(int64_t s64NowUs)
{
    if (m_slot.bWaiting) {
        refuse(CODE_TRIPPED);
    }
    if (MOVE_NONE != m_move.eState && m_move.bForService) {
        if (m_move.bFirstTold) {
            m_aSecond[0] = {std::max(s64NowUs, m_move.s64FirstUs + SECOND_ANSWER_GAP),
                            CODE_TRIPPED}; // nothing else can be due behind a move of its own
            m_uSecond = 1;
        } else {
            refuseTwice(CODE_TRIPPED, s64NowUs);
        }
    }
    forgetFirmware();
    m_move = {};
    m_bTakePosition = false;
    m_uExpected = 0;
    m_uOutstanding = 0;
    m_nStatus = 0;
    m_s64SilentUs = 0;
    m_s64BusyUs = 0;
    m_as64MoveUs = {};
    m_s64ProbeUs = 0;
    m_bHeld = false;
    m_bHoldTold = false;
    m_check.reset();
    leaveJob();
}

void Interlock::leaveJob()
{
    freeSlot();
    m_eJob = JOB_NONE;
    m_job.close();
}

void Interlock::startOff(int64_t s64NowUs)
{
    m_nOffTold = 0;
    m_bPilotOn = false;
    m_bLaserMode = false;
    tellOff(s64NowUs);
    // A byte that becomes part of an image is no failure; the one behind a pause is none.
    m_bLoaderMayTakeIt = m_bPort && isSendingFirmware();
    m_s64OffUs = m_bLoaderMayTakeIt ? s64NowUs + LOADER_QUIET : m_s64OffUs;
}

void Interlock::tellOff(int64_t s64NowUs)
{
    m_eOff = OFF_SENT;
    m_s64OffUs = NEVER; // until there is a port
    if (m_bPort) {
        m_actions.cutBeam(m_language.getBeamOff(), strlen(m_language.getBeamOff()));
        m_s64OffUs = s64NowUs + OFF_REPEAT;
        ++m_nOffTold;
        m_nGreetingsDue = 1 + (isGreetingDue(s64NowUs) ? m_nGreetingsDue : 0);
        m_s64GreetingUs = s64NowUs + GREETING_TIME;
    }
}

void Interlock::offSeen(int64_t s64NowUs)
{
    m_eOff = OFF_SEEN;
    m_s64OffUs = NEVER;
    m_s64AskUs = s64NowUs + ASK_IN_DARK;
    m_actions.tell(NOTICE_OFF_SEEN, 0);
    m_uSettings = 0;
    if (const char* const pLine = m_language.getSettingsLine(0); nullptr != pLine) {
        (void)send(pLine, EXPECT_SETTINGS, s64NowUs);
    }
}

void Interlock::drainIfDone(int64_t s64NowUs)
{
    if (JOB_RUNNING != m_eJob || !m_job.isDone() || SLOT_FREE != m_slot.eState) {
        return;
    }
    m_eJob = JOB_DRAINING;
    m_nIdleReports = 0;
    m_s64AskUs = s64NowUs;
    m_s64JobStepUs = std::max(s64NowUs, m_s64BusyUs) + LINE_MARGIN;
    if (!m_language.hasReports()) {
        (void)send(m_language.getPilot(m_bPilotOn), EXPECT_PROBE_IDLE, s64NowUs);
    }
}

void Interlock::endJob(int64_t s64NowUs)
{
    const auto nLines = static_cast<int>(m_job.getLine());
    m_s64BusyUs = std::min(m_s64BusyUs, s64NowUs); // it stands, sooner than was estimated
    leaveJob();
    setLevel(LEVEL_DARK);
    m_actions.tell(NOTICE_JOB_DONE, nLines);
}

bool Interlock::isPausedByOperator() const
{
    return JOB_PAUSING == m_eJob || JOB_PAUSED == m_eJob;
}

/** Whether the controller's times do not run. */
bool Interlock::isHolding() const
{
    return m_bHeld || isPausedByOperator();
}

bool Interlock::isGreetingDue(int64_t s64NowUs) const
{
    return m_nGreetingsDue > 0 && s64NowUs < m_s64GreetingUs;
}

bool Interlock::isUnderWay(int64_t s64NowUs) const
{
    const bool bExpects =
        std::any_of(m_aExpected.begin(), m_aExpected.begin() + static_cast<ptrdiff_t>(m_uExpected),
                    [](const Expected& expected) { return EXPECT_LIGHT != expected.eKind; });
    return bExpects || isGreetingDue(s64NowUs) || MOVE_NONE != m_move.eState ||
           m_s64BusyUs > s64NowUs || SLOT_KEPT == m_slot.eState || isSendingFirmware();
}

/** Whether nothing is under way, and no answer at all is due. */
bool Interlock::isQuiet(int64_t s64NowUs) const
{
    return 0 == m_uExpected && !isUnderWay(s64NowUs);
}

bool Interlock::send(const char* pText, EXPECT_E eKind, int64_t s64NowUs)
{
    return send(pText, strlen(pText), eKind, s64NowUs);
}

/** @return false, unsent, while the beam is not seen off, firmware passes, or there is no room */
bool Interlock::send(const char* pBytes, size_t uLength, EXPECT_E eKind, int64_t s64NowUs)
{
    if (!m_bPort || OFF_SEEN != m_eOff || m_aExpected.size() == m_uExpected ||
        m_uOutstanding + uLength > m_language.getBufferSize() ||
        (isSendingFirmware() && EXPECT_FIRMWARE != eKind)) {
        return false;
    }
    const int64_t s64TimeUs = (EXPECT_MOVE == eKind && m_move.bHome) ? HOME_TIME : LINE_MARGIN;
    m_aExpected[m_uExpected++] = {eKind, uLength, std::max(s64NowUs, m_s64BusyUs) + s64TimeUs};
    m_uOutstanding += uLength;
    m_actions.toController(pBytes, uLength);
    return true;
}
