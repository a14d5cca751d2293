// The rules between the service, the operator and the controller: levels, trips and times.
#include "Interlock.h"

#include <algorithm>
#include <cstring>

static const int64_t MS = 1000;
static const int64_t SECOND = 1000 * MS;
static const int64_t NEVER = INT64_MAX;

static const int64_t OFF_REPEAT = SECOND;       // Grbl greets 0.56 s after a reset in motion
static const int64_t LOADER_QUIET = 2 * SECOND; // it gives an image up after one of silence
static const int64_t ASK_OFTEN = 50 * MS;       // while something waits for a report
static const int64_t ASK_AT_END = 20 * MS;      // the beam may still be on, with the head at rest
static const int64_t ASK_USUALLY = 200 * MS;    // a report takes 5 ms
static const int64_t ASK_IN_DARK = SECOND;
static const int64_t CONTROLLER_SILENCE = SECOND;
static const int64_t SERVICE_SILENCE = 2 * SECOND;
static const int64_t MAX_LEASE = 10 * SECOND;
static const int64_t STEP_TIME = SECOND;       // a pause or the last laser off
static const int64_t LINE_MARGIN = 2 * SECOND; // beyond what is queued
static const int64_t HOME_TIME = 60 * SECOND;
static const int64_t PIECE_TIME = 30 * MS;         // the rest of a line comes in the same write
static const int64_t FIRST_ANSWER = 1500 * MS;     // the service waits for 2 s
static const int64_t HOME_REFUSED_BY = 200 * MS;   // Grbl refuses after 4 ms
static const int64_t SECOND_ANSWER_GAP = 100 * MS; // else both end in one read
static const int64_t SECOND_ANSWER = 19 * SECOND;  // the service waits for 20 s

static const char* const WAIT = "wait\n";

static const int CODE_TRIPPED = 26;
static const int CODE_LATE = 28;

Interlock::Interlock(const ILanguage& language, const GuardLimits& limits, IGuardActions& actions,
                     bool bHoming)
    : m_language(language), m_actions(actions),
      m_check(limits, language.getWords(), language.getPowerUpFeed()), m_bHoming(bHoming),
      m_s64OffUs(NEVER)
{
}

void Interlock::onPortUp(int64_t s64NowUs)
{
    m_bPort = true;
    m_fromController.clear();
    forget(s64NowUs);
    startOff(s64NowUs);
}

void Interlock::onPortLost(int64_t s64NowUs)
{
    const bool bMayBurn = LEVEL_DARK != m_eLevel || (m_bPort && OFF_SEEN != m_eOff);
    m_bPort = false;
    if (bMayBurn) { // nothing else reaches the controller
        m_bResetHeld = true;
        m_actions.holdReset(true);
    }
    if (LEVEL_DARK != m_eLevel) {
        trip(TRIP_CONTROLLER_GONE, 0, s64NowUs);
    } else {
        forget(s64NowUs);
        startOff(s64NowUs);
    }
}

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
    if (isUnderWay(s64NowUs)) {
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

void Interlock::endJob(int64_t /*s64NowUs*/)
{
    const auto nLines = static_cast<int>(m_job.getLine());
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

bool Interlock::isUnderWay(int64_t s64NowUs) const
{
    return m_uExpected > 0 || MOVE_NONE != m_move.eState || m_s64BusyUs > s64NowUs ||
           SLOT_KEPT == m_slot.eState || isSendingFirmware();
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
        if (bFailed && !m_bResetHeld) {
            m_bResetHeld = true;
            m_actions.holdReset(true);
        }
    }
    if (!m_fromService.isEmpty() && s64NowUs >= m_s64PieceUs + PIECE_TIME) {
        cutShort(s64NowUs);
    }
    if (0 != m_nStatus && s64NowUs >= m_s64StatusUs) {
        onStatusAlone(s64NowUs);
    }
    if (LEVEL_DARK != m_eLevel) {
        if (const TRIP_E eReason = findOverdue(s64NowUs); TRIP_NONE != eReason) {
            trip(eReason, 0, s64NowUs);
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

void Interlock::answerInTime(int64_t s64NowUs)
{
    if (m_slot.bWaiting && s64NowUs >= m_slot.s64AnswerByUs) {
        answerSlot(WAIT, s64NowUs);
    }
}

void Interlock::driveMove(int64_t s64NowUs)
{
    if (MOVE_ENDED == m_move.eState &&
        (!m_move.bForService || s64NowUs >= m_move.s64FirstUs + SECOND_ANSWER_GAP)) {
        finishMove(s64NowUs);
        return;
    }
    if (MOVE_NONE == m_move.eState || !m_move.bForService) {
        return;
    }
    if (!m_move.bFirstTold) {
        const bool bHomeTaken = m_move.bHome && m_language.isHomeAnsweredOnce();
        if (bHomeTaken && s64NowUs >= m_move.s64BeganUs + HOME_REFUSED_BY) {
            m_move.bFirstTold = true;
            m_move.s64FirstUs = s64NowUs;
            answer("ok\n");
        } else if (s64NowUs >= m_move.s64BeganUs + FIRST_ANSWER) {
            m_move.bForService = false;
            refuseTwice(CODE_LATE, s64NowUs);
        }
    } else if (s64NowUs >= m_move.s64FirstUs + SECOND_ANSWER) {
        m_move.bForService = false;
        refuse(CODE_LATE);
    }
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
    add(!m_fromService.isEmpty(), m_s64PieceUs + PIECE_TIME);
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
            ((m_move.bHome && m_language.isHomeAnsweredOnce()) ? HOME_REFUSED_BY : FIRST_ANSWER));
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
