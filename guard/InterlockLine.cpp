// The rules between the service, the operator and the controller: the line that is under way.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "Interlock.h"
#include "InterlockTimes.h"
#include "ServiceAnswer.h"
#include "ServiceLine.h"

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
    m_beforeSlot = m_check;
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
        m_check = m_beforeSlot; // stays kept, and goes out when it is repeated
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
        m_bEndDue = m_bEndDue || m_job.isDone();
    }
    m_slot.eState = SLOT_TAKEN;
    if (!isPausedByOperator() && !m_language.hasReports()) { // else a report tells it
        setHeld(1 == nStatus || 3 == nStatus, s64NowUs);
    }
    if (!m_slot.bWaiting) {
        return;
    }
    if (1 == nStatus || 3 == nStatus) {
        answerHeld(nStatus, s64NowUs);
    } else if (0 != nStatus && 4 != nStatus) { // only to be told
        std::array<char, 24> acText{};
        snprintf(acText.data(), acText.size(), "status:%d\nok\n", nStatus);
        freeSlot();
        answerSlot(acText.data(), s64NowUs);
        drainIfDone(s64NowUs);
    } else {
        m_bHoldTold = m_bHoldTold || 4 == nStatus;
        answerTaken(s64NowUs);
    }
}

/** Keeps the text: it may have to be known again. */
void Interlock::freeSlot()
{
    m_slot.eState = SLOT_FREE;
    m_slot.bWaiting = false;
}
