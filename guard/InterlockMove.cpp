// The rules between the service, the operator and the controller: homing and positioning moves.
#include <algorithm>

#include "Interlock.h"
#include "InterlockTimes.h"
#include "ServiceAnswer.h"
#include "ServiceLine.h"

static const int64_t MOVE_MARGIN = 5 * SECOND;

void Interlock::takeMove(const char* pText, size_t uLength, int64_t s64NowUs)
{
    if (MOVE_NONE != m_move.eState || SLOT_SENT == m_slot.eState || m_slot.bWaiting) {
        refuseTwice(CODE_BUSY, s64NowUs);
        m_bMoveRefused = true;
        return;
    }
    freeSlot();
    if (isText(pText, uLength, "$H")) {
        if (m_bHoming) {
            beginMove(true, true, 0, s64NowUs);
        } else { // nothing would stop the head at the machine's end
            refuseTwice(CODE_NEVER, s64NowUs);
        }
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
            answer(ANSWER_OK);
        } else if (s64NowUs >= m_move.s64BeganUs + ANSWER_COMMAND) {
            m_move.bForService = false;
            refuseTwice(CODE_LATE, s64NowUs);
        }
    } else if (s64NowUs >= m_move.s64FirstUs + SECOND_ANSWER) {
        m_move.bForService = false;
        refuse(CODE_LATE);
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
            answer(ANSWER_OK);
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
        lightPilot(s64NowUs); // a locked controller has refused it before
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

/** Who measures looks for the pilot spot, which is on from power-up in the arm's own language. */
void Interlock::lightPilot(int64_t s64NowUs)
{
    if (m_language.isPilotOffByReset()) {
        m_bPilotOn = true;
        (void)send(m_language.getPilot(true), EXPECT_LIGHT, s64NowUs); // no room: as it was
    }
}
