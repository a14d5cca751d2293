// The rules between the service, the operator and the controller: what the service sends and is
// told.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "Interlock.h"

static const int64_t MS = 1000;
static const int64_t SECOND = 1000 * MS;

static const int64_t SAME_WRITE = 30 * MS;       // a doubled line end comes at once
static const int64_t ANSWER_COMMAND = 1500 * MS; // the service waits for 2 s
static const int64_t ANSWER_JOB = 8 * SECOND;    // and for 10 s
static const int64_t SECOND_ANSWER_GAP = 100 * MS;
static const int64_t MOVE_MARGIN = 5 * SECOND;
static const int64_t HOME_TIME = 60 * SECOND;
static const int MAX_STRAY = 8;

// The codes of refusals; docs/guard.md explains them. 2 and 9 would make the service send "$X".
static const int CODE_DARK = 20;
static const int CODE_NEVER = 21;
static const int CODE_LASER = 22;
static const int CODE_CHECK = 23;
static const int CODE_BUSY = 24;
static const int CODE_TRIPPED = 26;
static const int CODE_IN_JOB = 27;

static const char* const OK = "ok\n";

namespace {

bool isText(const char* pText, size_t uLength, const char* pOther)
{
    while (uLength > 0 && ' ' == pText[uLength - 1]) {
        --uLength;
    }
    return strlen(pOther) == uLength && 0 == memcmp(pText, pOther, uLength);
}

bool startsWith(const char* pText, size_t uLength, const char* pPrefix)
{
    const size_t uPrefix = strlen(pPrefix);
    return uPrefix <= uLength && 0 == memcmp(pText, pPrefix, uPrefix);
}

bool isPilot(const char* pText, size_t uLength)
{
    return startsWith(pText, uLength, "M18");
}

bool isMove(const char* pText, size_t uLength)
{
    return startsWith(pText, uLength, "G05") || isText(pText, uLength, "$H");
}

/** "M18", with "S0" off. @return 0 or 1; -1 when it is anything else */
int parsePilot(const char* pText, size_t uLength)
{
    GcodeLine line;
    if (LINE_GOOD != parseGcode(pText, uLength, line) || 1 != line.uM || !line.hasM(180) ||
        0 != line.uG || 0 != (line.u32Has & ~(1U << ('S' - 'A')))) {
        return -1;
    }
    return (!line.has('S') || line.get('S') > 0) ? 1 : 0;
}

bool isMoveLine(const GcodeLine& line)
{
    uint32_t u32Allowed = 0;
    for (const char c : {'X', 'Y', 'Z', 'F'}) {
        u32Allowed |= 1U << static_cast<unsigned>(c - 'A');
    }
    return 1 == line.uG && line.hasG(50) && 0 == line.uM && 'G' == line.acText[0] &&
           0 == (line.u32Has & ~u32Allowed);
}

} // namespace

void Interlock::onServiceBytes(const char* pBytes, size_t uLength, int64_t s64NowUs)
{
    if (!m_fromService.isEmpty() && s64NowUs >= m_s64PieceUs + SAME_WRITE) {
        cutShort(s64NowUs);
    }
    for (size_t u = 0; u < uLength; ++u) {
        onServiceByte(pBytes[u], s64NowUs);
    }
}

void Interlock::onServiceByte(char c, int64_t s64NowUs)
{
    if ('\n' != c) {
        m_bAfterLine = false;
        if (m_bDropRest) {
            return;
        }
        if (m_fromService.isEmpty()) {
            m_s64PieceUs = s64NowUs;
        }
        m_fromService.add(c);
        return;
    }
    if (m_bDropRest) { // the end of a line that was given up
        m_bDropRest = false;
        return;
    }
    if (m_fromService.isEmpty() && m_bAfterLine && s64NowUs < m_s64LineEndUs + SAME_WRITE) {
        m_bAfterLine = false;
        if (m_slot.bWaiting && !m_slot.bJob) { // only a job's lines have a second line end
            m_slot.bJob = true;
            m_slot.s64AnswerByUs += ANSWER_JOB - ANSWER_COMMAND;
        }
        return;
    }
    m_bAfterLine = true;
    m_s64LineEndUs = s64NowUs;
    onServiceLine(s64NowUs);
    m_fromService.clear();
}

void Interlock::onServiceGone(int64_t s64NowUs)
{
    m_fromService.clear();
    m_bDropRest = false;
    m_bAfterLine = false;
    m_slot.bWaiting = false;
    m_move.bForService = false;
    if (LEVEL_DARK != m_eLevel) {
        trip(TRIP_SERVICE_GONE, 0, s64NowUs);
    }
    m_uSecond = 0;
    m_bMoveRefused = false;
}

/** A line whose rest does not come. */
void Interlock::cutShort(int64_t s64NowUs)
{
    m_fromService.clear();
    m_bDropRest = true;
    if (LEVEL_JOB == m_eLevel) {
        trip(TRIP_LINE_CUT, 0, s64NowUs);
    } else {
        m_actions.tell(NOTICE_DROPPED, 0);
    }
}

void Interlock::onServiceLine(int64_t s64NowUs)
{
    const char* const pText = m_fromService.getText();
    const size_t uLength = m_fromService.getLength();
    bool bPrintable = !m_fromService.isTooLong();
    for (size_t u = 0; u < uLength; ++u) {
        bPrintable = bPrintable && pText[u] >= ' ' && pText[u] <= '~';
    }
    if (!bPrintable) { // nobody waits for an answer to that
        if (LEVEL_JOB == m_eLevel) {
            trip(TRIP_LINE_BAD, m_fromService.isTooLong() ? LINE_LONG : LINE_BYTE, s64NowUs);
        } else {
            m_actions.tell(NOTICE_DROPPED, 0);
        }
    } else if (LEVEL_JOB == m_eLevel) {
        takeJobLine(pText, uLength, s64NowUs);
    } else {
        takeLine(pText, uLength, s64NowUs);
    }
}

void Interlock::takeJobLine(const char* pText, size_t uLength, int64_t s64NowUs)
{
    const bool bSame =
        m_slot.uLength == uLength && 0 == memcmp(m_slot.acText.data(), pText, uLength);
    if (!m_slot.bWaiting) {
        if (SLOT_FREE != m_slot.eState) {
            if (bSame) {
                takeRepeat(s64NowUs);
                return;
            }
        } else if (m_nStray > 0 && bSame && m_bAnswered) {
            // A stranger's answer was taken for this line's: it was carried out, and is not again.
            --m_nStray;
            m_bAnswered = true;
            m_s64AnsweredUs = s64NowUs;
            answer(OK);
            return;
        } else if (m_job.isNext(pText, uLength)) {
            fillSlot(pText, uLength, s64NowUs);
            m_slot.s64AnswerByUs = s64NowUs + ANSWER_JOB;
            m_slot.bJob = true;
            if (isPausedByOperator()) {
                m_slot.eState = SLOT_KEPT;
                answerHeld(1, s64NowUs);
            } else {
                forwardSlot(s64NowUs);
            }
            return;
        } else if (m_job.isDone() && 0 == uLength) {
            answer(OK); // the service's own end of the job
            return;
        }
    }
    if (!takeForeignLine(pText, uLength, s64NowUs)) {
        trip(TRIP_LINE_FOREIGN, 0, s64NowUs);
        if (isText(pText, uLength, "M5")) { // whoever sent it waits as well
            answer(OK);
        } else {
            refuse(CODE_TRIPPED);
        }
    }
}

/** What may come in a job without being its line. @return false when it may not */
bool Interlock::takeForeignLine(const char* pText, size_t uLength, int64_t s64NowUs)
{
    if (isText(pText, uLength, "M5")) {
        if (isPausedByOperator() || (m_job.isDone() && SLOT_FREE == m_slot.eState)) {
            answer(OK);
            return true;
        }
        return false;
    }
    const bool bMove = isMove(pText, uLength);
    const bool bOwn = isText(pText, uLength, "$X") || isText(pText, uLength, "~") ||
                      isText(pText, uLength, "M21");
    if (isPilot(pText, uLength) && m_bMoveRefused) {
        return true; // part of the move that was refused
    }
    if (!bMove && !bOwn) {
        return false;
    }
    if (m_bAnswered || m_slot.bWaiting) {
        m_nStray = std::min(MAX_STRAY, m_nStray + (bMove ? 2 : 1));
    }
    if (bMove) {
        refuseTwice(CODE_IN_JOB, s64NowUs);
        m_bMoveRefused = true;
    } else {
        refuse(CODE_NEVER);
    }
    return true;
}

void Interlock::takeLine(const char* pText, size_t uLength, int64_t s64NowUs)
{
    if (0 == uLength) {
        answer(OK);
    } else if (isText(pText, uLength, "M5")) {
        (void)send(m_language.getLaserOff(), EXPECT_NOTHING, s64NowUs); // off anyway when unsent
        answer(OK);
    } else if (isText(pText, uLength, "$X") || isText(pText, uLength, "~") ||
               isText(pText, uLength, "M21")) {
        refuse(CODE_NEVER);
    } else if (isPilot(pText, uLength) && m_bMoveRefused) {
        return; // part of the move that was refused
    } else if (LEVEL_DARK == m_eLevel) {
        if (isMove(pText, uLength)) {
            refuseTwice(CODE_DARK, s64NowUs);
            m_bMoveRefused = true;
        } else {
            refuse(CODE_DARK);
        }
    } else if (isMove(pText, uLength)) {
        takeMove(pText, uLength, s64NowUs);
    } else if (isPilot(pText, uLength)) {
        takePilot(pText, uLength, s64NowUs);
    } else {
        takeMotionLine(pText, uLength, s64NowUs);
    }
}

void Interlock::takeMotionLine(const char* pText, size_t uLength, int64_t s64NowUs)
{
    const bool bSame =
        m_slot.uLength == uLength && 0 == memcmp(m_slot.acText.data(), pText, uLength);
    if (SLOT_FREE != m_slot.eState && !m_slot.bWaiting && bSame) {
        takeRepeat(s64NowUs);
        return;
    }
    if (SLOT_SENT == m_slot.eState || m_slot.bWaiting || MOVE_NONE != m_move.eState) {
        refuse(CODE_BUSY);
        return;
    }
    fillSlot(pText, uLength, s64NowUs);
    forwardSlot(s64NowUs);
}

void Interlock::takePilot(const char* pText, size_t uLength, int64_t s64NowUs)
{
    const int nPilot = parsePilot(pText, uLength);
    const bool bOpen = MOVE_SENT == m_move.eState || MOVE_TAKEN == m_move.eState;
    if (bOpen && m_move.bForService && m_move.nPilot < 0 && nPilot >= 0) {
        m_move.nPilot = nPilot;
        return;
    }
    if (nPilot < 0) {
        refuse(CODE_CHECK);
        return;
    }
    takeMotionLine(pText, uLength, s64NowUs);
}

void Interlock::takeMove(const char* pText, size_t uLength, int64_t s64NowUs)
{
    if (MOVE_NONE != m_move.eState || SLOT_SENT == m_slot.eState || m_slot.bWaiting) {
        refuseTwice(CODE_BUSY, s64NowUs);
        m_bMoveRefused = true;
        return;
    }
    freeSlot();
    if (isText(pText, uLength, "$H")) {
        beginMove(true, true, 0, s64NowUs);
        return;
    }
    GcodeLine line;
    int64_t s64DurationUs = 0;
    std::array<char, LineBuffer::MAX_LINE + 1> acOut{};
    size_t uOut = 0;
    LINE_FAULT_E eFault = parseGcode(pText, uLength, line);
    if (LINE_GOOD == eFault) {
        uOut = m_language.encodeMove(pText, uLength, line, acOut.data(), acOut.size());
        eFault = (isMoveLine(line) && uOut > 0) ? m_check.applyMove(line, s64DurationUs)
                                                : LINE_FORBIDDEN;
    }
    if (LINE_GOOD != eFault) {
        m_actions.tell(NOTICE_DETAIL, eFault);
        refuseTwice(CODE_CHECK, s64NowUs);
        m_bMoveRefused = true;
        return;
    }
    beginMove(false, true, s64DurationUs, s64NowUs);
    if (!send(acOut.data(), uOut, EXPECT_MOVE, s64NowUs)) {
        m_move = {};
        m_check.losePosition();
        refuseTwice(CODE_BUSY, s64NowUs);
        m_bMoveRefused = true;
        return;
    }
    m_s64BusyUs = m_move.s64LimitUs - MOVE_MARGIN;
}

void Interlock::beginMove(bool bHome, bool bForService, int64_t s64DurationUs, int64_t s64NowUs)
{
    m_move = {};
    m_move.eState = MOVE_SENT;
    m_move.bHome = bHome;
    m_move.bForService = bForService;
    m_move.s64BeganUs = s64NowUs;
    m_move.s64LimitUs =
        bHome ? s64NowUs + HOME_TIME
              : std::max(s64NowUs, m_s64BusyUs) + s64DurationUs + s64DurationUs / 5 + MOVE_MARGIN;
    if (bHome) {
        m_check.losePosition();
        m_s64SilentUs = 0; // Grbl reports nothing until it has ended
        (void)send(m_language.getHome(), EXPECT_MOVE, s64NowUs); // late, if it found no room
    }
}

/** The line that the service was told to wait for comes again. */
void Interlock::takeRepeat(int64_t s64NowUs)
{
    m_slot.bWaiting = true;
    m_slot.s64AnswerByUs = s64NowUs + (m_slot.bJob ? ANSWER_JOB : ANSWER_COMMAND);
    if (SLOT_TAKEN == m_slot.eState) {
        answerTaken(s64NowUs);
    } else if (isPausedByOperator() || (m_bHeld && SLOT_SENT == m_slot.eState)) {
        answerHeld(1, s64NowUs);
    } else if (SLOT_KEPT == m_slot.eState) {
        forwardSlot(s64NowUs);
    }
}

void Interlock::fillSlot(const char* pText, size_t uLength, int64_t s64NowUs)
{
    m_slot.eState = SLOT_KEPT;
    m_slot.bWaiting = true;
    m_slot.bJob = false;
    m_slot.s64AnswerByUs = s64NowUs + ANSWER_COMMAND;
    m_slot.uLength = uLength;
    memcpy(m_slot.acText.data(), pText, uLength);
}

/** Send what is kept; what must not pass is refused, or trips in a job. */
void Interlock::forwardSlot(int64_t s64NowUs)
{
    const char* const pText = m_slot.acText.data();
    if (LEVEL_JOB != m_eLevel && isPilot(pText, m_slot.uLength)) {
        m_bPilotOn = 1 == parsePilot(pText, m_slot.uLength);
        if (send(m_language.getPilot(m_bPilotOn), EXPECT_LINE, s64NowUs)) {
            m_slot.eState = SLOT_SENT;
        }
        return;
    }
    GcodeLine line;
    int64_t s64DurationUs = 0;
    std::array<char, LineBuffer::MAX_LINE + 1> acOut{};
    const GcodeCheck before = m_check;
    LINE_FAULT_E eFault = parseGcode(pText, m_slot.uLength, line);
    if (LINE_GOOD == eFault) {
        eFault = m_check.apply(line, LEVEL_JOB == m_eLevel, s64DurationUs);
    }
    if (LINE_GOOD != eFault) {
        if (LEVEL_JOB == m_eLevel) {
            trip(TRIP_LINE_BAD, eFault, s64NowUs);
            return;
        }
        m_actions.tell(NOTICE_DETAIL, eFault);
        m_slot.bWaiting = false;
        freeSlot();
        refuse((LINE_LASER == eFault) ? CODE_LASER : CODE_CHECK);
        return;
    }
    const size_t uOut =
        m_language.encodeLine(pText, m_slot.uLength, line, acOut.data(), acOut.size());
    if (0 == uOut) { // nothing in it for the controller
        onLineAnswer(true, 0, s64NowUs);
        return;
    }
    if (!sendLine(acOut.data(), uOut, s64DurationUs, s64NowUs)) {
        m_check = before; // stays kept, and goes out when it is repeated
        return;
    }
    m_slot.eState = SLOT_SENT;
}

/**
 * The controller has the last moves at most: the estimates of those before, which are too long, do
 * not add up over a job.
 */
bool Interlock::sendLine(const char* pBytes, size_t uLength, int64_t s64DurationUs,
                         int64_t s64NowUs)
{
    const int64_t s64EstimateUs = s64DurationUs + s64DurationUs / 5;
    const int64_t s64QueuedUs =
        std::accumulate(m_as64MoveUs.begin(), m_as64MoveUs.end(), s64EstimateUs) -
        m_as64MoveUs[m_uOldestMove];
    const int64_t s64FormerUs = m_s64BusyUs;
    m_s64BusyUs = std::max(s64NowUs, m_s64BusyUs) + s64EstimateUs;
    if (s64EstimateUs > 0) { // what does not move is no block of Grbl's
        m_s64BusyUs = std::min(m_s64BusyUs, s64NowUs + s64QueuedUs);
    }
    if (!send(pBytes, uLength, EXPECT_LINE, s64NowUs)) {
        m_s64BusyUs = s64FormerUs;
        return false;
    }
    if (s64EstimateUs > 0) {
        m_as64MoveUs[m_uOldestMove] = s64EstimateUs;
        m_uOldestMove = (m_uOldestMove + 1) % m_as64MoveUs.size();
    }
    return true;
}

void Interlock::answer(const char* pText)
{
    m_actions.toService(pText, strlen(pText));
}

void Interlock::answerSlot(const char* pText, int64_t s64NowUs)
{
    m_slot.bWaiting = false;
    m_bAnswered = true;
    m_s64AnsweredUs = s64NowUs;
    answer(pText);
}

/** The line under way is taken, and the service, which waits, is told. */
void Interlock::answerTaken(int64_t s64NowUs)
{
    const bool bGoesOn = m_bHoldTold;
    m_bHoldTold = false;
    freeSlot();
    answerSlot(bGoesOn ? "status:4\nok\n" : OK, s64NowUs);
    drainIfDone(s64NowUs);
}

/** Deliberate: alone, never with an acknowledgement, which the service would repeat for ever. */
void Interlock::answerHeld(int nCode, int64_t s64NowUs)
{
    m_bHoldTold = true;
    answerSlot((3 == nCode) ? "status:3\n" : "status:1\n", s64NowUs);
}

/** Keeps the text: it may have to be known again. */
void Interlock::freeSlot()
{
    m_slot.eState = SLOT_FREE;
    m_slot.bWaiting = false;
}

void Interlock::refuse(int nCode)
{
    std::array<char, 16> acText{};
    snprintf(acText.data(), acText.size(), "error:%d\n", nCode);
    answer(acText.data());
    m_actions.tell(NOTICE_REFUSED, nCode);
}

/** Nobody is to wait 20 s for a second answer that does not come. */
void Interlock::refuseTwice(int nCode, int64_t s64NowUs)
{
    refuse(nCode);
    if (m_uSecond < m_aSecond.size()) {
        m_aSecond[m_uSecond++] = {s64NowUs + SECOND_ANSWER_GAP, nCode};
    }
}

void Interlock::answerSeconds(int64_t s64NowUs)
{
    size_t uLeft = 0;
    for (size_t u = 0; u < m_uSecond; ++u) {
        if (s64NowUs < m_aSecond[u].s64DueUs) {
            m_aSecond[uLeft++] = m_aSecond[u];
            continue;
        }
        std::array<char, 16> acText{};
        snprintf(acText.data(), acText.size(), "error:%d\n", m_aSecond[u].nCode);
        answer(acText.data());
    }
    m_uSecond = uLeft;
    m_bMoveRefused = m_bMoveRefused && uLeft > 0;
}
