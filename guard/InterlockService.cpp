// The rules between the service, the operator and the controller: what the service sends.
#include <algorithm>
#include <cstring>

#include "Interlock.h"
#include "InterlockTimes.h"
#include "ServiceAnswer.h"
#include "ServiceLine.h"

static const int MAX_STRAY = 8;

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
    m_bEndDue = false;
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
            answer(ANSWER_OK);
            return;
        } else if (0 == uLength && (m_bEndDue || m_job.isDone())) {
            m_bEndDue = false;
            answer(ANSWER_OK); // the service's own end of this job, or of the one before
            return;
        } else if (m_job.isNext(pText, uLength)) {
            m_bEndDue = false;
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
        }
    }
    if (!takeForeignLine(pText, uLength, s64NowUs)) {
        trip(TRIP_LINE_FOREIGN, 0, s64NowUs);
        if (isText(pText, uLength, "M5")) { // whoever sent it waits as well
            answer(ANSWER_OK);
        } else {
            refuse(CODE_TRIPPED);
        }
    }
}

/** What may come in a job without being its line. @return false when it may not */
bool Interlock::takeForeignLine(const char* pText, size_t uLength, int64_t s64NowUs)
{
    if (isText(pText, uLength, "M5")) {
        if (isPausedByOperator()) {
            answer(ANSWER_OK);
        }
        return isPausedByOperator(); // else somebody wants it dark
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
        m_bEndDue = false;
        answer(ANSWER_OK);
    } else if (isText(pText, uLength, "M5")) {
        (void)send(m_language.getLaserOff(), EXPECT_NOTHING, s64NowUs); // off anyway when unsent
        answer(ANSWER_OK);
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
