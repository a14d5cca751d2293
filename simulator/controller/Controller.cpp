// The virtual motion controller itself: lines in, answers out, an arm that moves meanwhile.
#include "Controller.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "AnswerText.h"

static const int64_t TICK_US = 5000; // how often a moving arm's position is updated
static const size_t MAX_INPUT = 4096;
static const size_t MAX_WAITING = 64;

static const int STATUS_HELD = 1;
static const int STATUS_RUNNING = 4;
static const int STATUS_MOVING = 5;

namespace {

/** Whether a line without a motion waits for its turn behind the queued moves. */
bool usesQueue(const ParsedLine& line)
{
    return LASER_AS_IT_IS != line.eLaser || line.bHasS || line.bDwell;
}

/** M5 and nothing else. */
bool isLaserOff(const ParsedLine& line)
{
    return LINE_KIND_ACCEPTED == line.eKind && LASER_OFF == line.eLaser && !line.bDwell;
}

} // namespace

Controller::Controller(const ControllerSettings& settings, ControllerJournal& journal)
    : m_settings(settings), m_journal(journal), m_answers(settings.s64AnswerUs),
      m_loader(settings.strImagePath, settings.s64ImageQuietUs), m_arm(settings, journal)
{
}

void Controller::setTrigger(std::function<void(const std::string&)> trigger)
{
    m_triggers.setTrigger(std::move(trigger));
}

void Controller::onBeam(BeamSink sink)
{
    m_arm.onBeam(std::move(sink));
}

void Controller::receive(const std::string& strBytes, int64_t s64NowUs)
{
    advance(s64NowUs);
    m_arm.stayAwake(s64NowUs);
    size_t uPos = 0;
    while (uPos < strBytes.size()) {
        if (m_loader.isActive()) {
            uPos += m_loader.take(strBytes.data() + uPos, strBytes.size() - uPos, s64NowUs);
            if (!m_loader.isActive()) {
                m_journal.record(s64NowUs, "image", m_loader.getResult());
            }
        } else {
            takeByte(strBytes[uPos++], s64NowUs);
        }
    }
}

void Controller::takeByte(char c, int64_t s64NowUs)
{
    if (BYTE_HOLD == c || BYTE_RESET == c) {
        m_journal.record(s64NowUs, "byte", std::string(1, c));
        if (BYTE_HOLD == c) {
            hold(true, s64NowUs);
            m_bAfterLine = m_strInput.empty() && !m_settings.bAnswerEmptyLines;
        } else {
            softReset(s64NowUs);
        }
        return;
    }
    if ('\n' != c) {
        if (m_strInput.size() < MAX_INPUT) {
            m_strInput += c;
        }
        return;
    }
    const std::string strLine = std::exchange(m_strInput, {});
    m_journal.record(s64NowUs, "rx", strLine);
    const bool bBelongsToLine = strLine.empty() && m_bAfterLine;
    m_bAfterLine = !strLine.empty() && !m_settings.bAnswerEmptyLines;
    if (!bBelongsToLine) {
        m_deqLine.push_back(strLine);
        processLines(s64NowUs);
    }
}

void Controller::advance(int64_t s64NowUs)
{
    for (unsigned uEnded = m_arm.advance(s64NowUs); uEnded > 0; --uEnded) {
        endMove(s64NowUs);
    }
    processLines(s64NowUs);
    m_arm.tellBeam(s64NowUs);
    tellStatus(s64NowUs);
    m_arm.tireOfIdling(s64NowUs);
    if (m_loader.endIfQuiet(s64NowUs)) {
        m_journal.record(s64NowUs, "image", m_loader.getResult());
    }
}

/** Once for each interval that has begun since the arm moves. */
void Controller::tellStatus(int64_t s64NowUs)
{
    if (m_settings.s64StatusUs <= 0 || !m_arm.getMotion().isMoving()) {
        m_s64StatusUs = -1;
        return;
    }
    if (m_s64StatusUs < 0) {
        m_s64StatusUs = s64NowUs + m_settings.s64StatusUs;
    }
    for (; m_s64StatusUs <= s64NowUs; m_s64StatusUs += m_settings.s64StatusUs) {
        m_answers.tell(formatStatus(STATUS_MOVING), s64NowUs);
    }
}

void Controller::hold(bool bHeld, int64_t s64NowUs)
{
    advance(s64NowUs);
    m_arm.hold(bHeld);
    processLines(s64NowUs); // one that waited for room is not taken now
    m_arm.tellBeam(s64NowUs);
}

void Controller::softReset(int64_t s64NowUs)
{
    m_bHoldTold = false;
    m_bLocked = false;
    m_strInput.clear();
    m_bAfterLine = false;
    m_deqLine.clear();
    m_answers.drop();
    m_arm.reset(s64NowUs);
    m_answers.tell(formatGreeting(), s64NowUs);
}

void Controller::endMove(int64_t s64NowUs)
{
    m_arm.endMove();
    if (m_bOnce) {
        return;
    }
    m_answers.tell(formatDone(), s64NowUs);
    // An M18 behind the move is answered in the same write.
    if (!m_deqLine.empty() && m_arm.getMotion().isIdle() &&
        LINE_KIND_SPOT == parseLine(m_deqLine.front()).eKind) {
        m_answers.join();
        const std::string strLine = std::move(m_deqLine.front());
        m_deqLine.pop_front();
        processLine(strLine, s64NowUs);
        m_answers.endJoin();
    }
}

void Controller::processLines(int64_t s64NowUs)
{
    while (!m_deqLine.empty() && !mustWait(parseLine(m_deqLine.front()))) {
        const std::string strLine = std::move(m_deqLine.front());
        m_deqLine.pop_front();
        processLine(strLine, s64NowUs);
    }
}

bool Controller::mustWait(const ParsedLine& line) const
{
    switch (line.eKind) {
    case LINE_KIND_MOVE:
    case LINE_KIND_POSITION:
    case LINE_KIND_HOME:
        return m_arm.getMotion().isFull() && !m_arm.isHeld();
    case LINE_KIND_ACCEPTED:
        return usesQueue(line) && m_arm.getMotion().isFull() && !m_arm.isHeld();
    case LINE_KIND_SPOT:
        return !m_arm.getMotion().isIdle() && !m_arm.isHeld();
    default:
        return false;
    }
}

void Controller::processLine(const std::string& strLine, int64_t s64NowUs)
{
    ++m_nLines;
    const unsigned uEpoch = m_uWireEpoch;
    m_triggers.fire(m_nLines);
    if (uEpoch != m_uWireEpoch) {
        return; // the cable is out: the line was lost on it
    }
    const Fault fault = m_faultPlan.take();
    std::string strAnswer = answerFor(parseLine(strLine), fault, s64NowUs);
    if (FAULT_STATUS == fault.eKind) {
        strAnswer.insert(0, formatStatus(fault.nValue));
    }
    m_answers.answer(strAnswer, fault, s64NowUs);
}

std::string Controller::answerFor(const ParsedLine& line, const Fault& fault, int64_t s64NowUs)
{
    if (FAULT_REFUSE == fault.eKind) {
        const bool bLocks = ERROR_BAD_NUMBER == fault.nValue || ERROR_LOCKED == fault.nValue;
        m_bLocked = m_bLocked || bLocks;
        return formatError(fault.nValue);
    }
    if (FAULT_ALARM == fault.eKind) {
        m_bLocked = true;
        m_arm.alarm();
        return formatAlarm(fault.nValue);
    }
    if (LINE_KIND_UNLOCK == line.eKind) {
        m_bLocked = false;
        return formatOk();
    }
    if (isLaserOff(line) && !(m_arm.isHeld() && m_arm.getMotion().isFull())) { // taken at any time
        return carryOut(line);
    }
    if (m_bLocked) {
        return formatError(ERROR_LOCKED);
    }
    if (m_arm.isHeld() && LINE_KIND_RESUME != line.eKind) {
        m_bHoldTold = true;
        return formatStatus(STATUS_HELD);
    }
    std::string strAnswer = execute(line, s64NowUs);
    if (!m_arm.isHeld() && std::exchange(m_bHoldTold, false)) {
        return formatStatus(STATUS_RUNNING) + strAnswer;
    }
    return strAnswer;
}

std::string Controller::execute(const ParsedLine& line, int64_t s64NowUs)
{
    switch (line.eKind) {
    case LINE_KIND_REFUSED:
        if (ERROR_BAD_NUMBER == line.nError) {
            return lockWith(formatError(line.nError));
        }
        return formatError(line.nError);
    case LINE_KIND_RESUME:
        hold(false, s64NowUs);
        return formatOk();
    case LINE_KIND_HOME:
        m_arm.home();
        return formatOk();
    case LINE_KIND_SPOT:
        m_arm.switchPilot(!line.bHasS || line.dS > 0);
        return formatOk();
    case LINE_KIND_LOADER:
        m_loader.begin(s64NowUs);
        return formatOk();
    default:
        return carryOut(line);
    }
}

std::string Controller::carryOut(const ParsedLine& line)
{
    return m_arm.carryOut(line) ? formatOk() : formatError(ERROR_OUT_OF_RANGE);
}

std::string Controller::lockWith(const std::string& strAnswer)
{
    m_bLocked = true;
    return strAnswer;
}

bool Controller::takeAnswer(int64_t s64NowUs, std::string& strText)
{
    return m_answers.take(s64NowUs, strText);
}

int64_t Controller::nextDueUs(int64_t s64NowUs) const
{
    const int64_t s64AnswerUs = m_answers.getDueUs();
    int64_t s64DueUs = (s64AnswerUs < 0) ? INT64_MAX : s64AnswerUs;
    if (const int64_t s64LeftUs = m_arm.getMotion().getRemainingUs(); s64LeftUs >= 0) {
        s64DueUs = std::min(s64DueUs, s64NowUs + std::min(s64LeftUs, TICK_US));
    }
    if (m_loader.isActive()) {
        s64DueUs = std::min(s64DueUs, m_loader.getQuietUs());
    }
    if (const int64_t s64OffUs = m_arm.getIdleOffUs(); s64OffUs >= 0) {
        s64DueUs = std::min(s64DueUs, s64OffUs);
    }
    return (INT64_MAX == s64DueUs) ? -1 : s64DueUs;
}

bool Controller::wantsInput() const
{
    return m_deqLine.size() < MAX_WAITING;
}

void Controller::dropWire()
{
    ++m_uWireEpoch;
    m_strInput.clear();
    m_bAfterLine = false;
    m_deqLine.clear();
    m_answers.drop();
    m_loader.end();
}

void Controller::reset(int64_t s64NowUs)
{
    dropWire();
    m_bHoldTold = false;
    m_bLocked = false;
    m_arm.restart(s64NowUs);
}

void Controller::booted(int64_t s64NowUs)
{
    if (m_settings.bBootGreeting) {
        m_answers.tell(formatGreeting(), s64NowUs);
    }
}

void Controller::addTrigger(int nLine, const std::string& strCommand)
{
    m_triggers.add(nLine, strCommand);
}

bool Controller::runCommand(const std::string& strCommand, int64_t s64NowUs)
{
    const std::vector<std::string> vecWord = splitWords(strCommand);
    if (vecWord.empty()) {
        return false;
    }
    if ("hold" == strCommand || "go" == strCommand) {
        hold("hold" == strCommand, s64NowUs);
        return true;
    }
    if ("mute" == strCommand || "unmute" == strCommand) {
        m_answers.mute("mute" == strCommand);
        return true;
    }
    if ("restart" == strCommand) {
        advance(s64NowUs);
        softReset(s64NowUs);
        return true;
    }
    if (int nCode = 0;
        2 == vecWord.size() && "alarm-now" == vecWord[0] && parseCount(vecWord[1], nCode)) {
        advance(s64NowUs);
        m_bLocked = true;
        m_arm.alarm();
        m_arm.tellBeam(s64NowUs);
        m_answers.tell(formatAlarm(nCode), s64NowUs);
        return true;
    }
    if ("once on" == strCommand || "once off" == strCommand) {
        m_bOnce = "once on" == strCommand;
        return true;
    }
    if ("say" == vecWord[0] && strCommand.size() > 4) {
        m_answers.tell(ControllerJournal::unescape(strCommand.substr(4)), s64NowUs);
        return true;
    }
    return m_faultPlan.add(vecWord);
}

std::string Controller::describe() const
{
    const Point& position = m_arm.getMotion().getPosition();
    const Beam& beam = m_arm.getBeam().get();
    char acText[200] = {0};
    snprintf(acText, sizeof(acText),
             "x=%.3f y=%.3f z=%.3f laser=%d power=%.0f pilot=%d moving=%d held=%d locked=%d "
             "homed=%d loading=%d lines=%d",
             position[0], position[1], position[2], beam.bOn ? 1 : 0, beam.dPower,
             m_arm.isPilotOn() ? 1 : 0, m_arm.getMotion().isIdle() ? 0 : 1, m_arm.isHeld() ? 1 : 0,
             m_bLocked ? 1 : 0, m_arm.isHomed() ? 1 : 0, m_loader.isActive() ? 1 : 0, m_nLines);
    return acText;
}
