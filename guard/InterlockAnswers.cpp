// The rules between the service, the operator and the controller: what the service is told.
#include <array>
#include <cstdio>
#include <cstring>

#include "Interlock.h"
#include "InterlockTimes.h"
#include "ServiceAnswer.h"

static const char* const WAIT = "wait\n";

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
    answerSlot(bGoesOn ? "status:4\nok\n" : ANSWER_OK, s64NowUs);
    drainIfDone(s64NowUs);
}

/** Deliberate: alone, never with an acknowledgement, which the service would repeat for ever. */
void Interlock::answerHeld(int nCode, int64_t s64NowUs)
{
    m_bHoldTold = true;
    answerSlot((3 == nCode) ? "status:3\n" : "status:1\n", s64NowUs);
}

void Interlock::answerInTime(int64_t s64NowUs)
{
    if (m_slot.bWaiting && s64NowUs >= m_slot.s64AnswerByUs) {
        answerSlot(WAIT, s64NowUs);
    }
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
