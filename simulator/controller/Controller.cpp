// The virtual motion controller itself: lines in, answers out, an arm that moves meanwhile.
#include "Controller.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

#include "AnswerText.h"

static const double POWER_UP_FEED = 1000; // millimetres per minute
static const double HOMING_FEED = 3000;
static const double FULL_POWER = 1000; // of a laser that nobody has told a power
static const int64_t TICK_US = 5000;   // how often a moving arm's position is told
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
    : m_settings(settings), m_journal(journal), m_beamLog(journal), m_answers(settings.s64AnswerUs),
      m_motion(settings.dSpeedUp, settings.s64SettleUs),
      m_loader(settings.strImagePath, settings.s64ImageQuietUs), m_bPilotOn(!settings.bPilotOff),
      m_dFeed(POWER_UP_FEED)
{
    m_motion.setPosition(settings.powerUpPosition);
    m_laser = {settings.bPowerUpLaserOn, settings.bPowerUpLaserOn ? FULL_POWER : 0};
    m_motion.setLaser(m_laser);
}

void Controller::setTrigger(std::function<void(const std::string&)> trigger)
{
    m_triggers.setTrigger(std::move(trigger));
}

void Controller::onBeam(BeamSink sink)
{
    m_motion.onBeam([this, sink = std::move(sink)](const BeamStroke& stroke) {
        if (!isDarkened()) {
            sink(stroke);
        }
    });
}

void Controller::receive(const std::string& strBytes, int64_t s64NowUs)
{
    advance(s64NowUs);
    m_s64BusyUs = s64NowUs;
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
    m_s64BusyUs = m_motion.isIdle() ? m_s64BusyUs : s64NowUs;
    for (unsigned uEnded = m_motion.advance(s64NowUs); uEnded > 0; --uEnded) {
        endMove(s64NowUs);
    }
    processLines(s64NowUs);
    tellBeam(s64NowUs);
    tellStatus(s64NowUs);
    tireOfIdling(s64NowUs);
    if (m_loader.endIfQuiet(s64NowUs)) {
        m_journal.record(s64NowUs, "image", m_loader.getResult());
    }
}

/** Once for each interval that has begun since the arm moves. */
void Controller::tellStatus(int64_t s64NowUs)
{
    if (m_settings.s64StatusUs <= 0 || !m_motion.isMoving()) {
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

bool Controller::isIdleOffDue() const
{
    return m_settings.s64IdleOffUs > 0 && m_laser.bOn && m_motion.isIdle();
}

void Controller::tireOfIdling(int64_t s64NowUs)
{
    if (isIdleOffDue() && s64NowUs >= m_s64BusyUs + m_settings.s64IdleOffUs) {
        m_laser.bOn = false;
        m_motion.setLaser(m_laser);
        m_journal.record(s64NowUs, "idle", "laser off");
        tellBeam(s64NowUs);
    }
}

void Controller::tellBeam(int64_t s64NowUs)
{
    for (const Motion::Change& change : m_motion.takeChanges()) {
        updateBeam(change.s64AtUs, change.laser, change.bMoving);
    }
    updateBeam(s64NowUs, m_motion.getLaser(), m_motion.isMoving());
}

void Controller::updateBeam(int64_t s64AtUs, const Laser& laser, bool bMoving)
{
    m_beamLog.update(s64AtUs,
                     {laser.bOn && laser.dPower > 0 && !isDarkened(), laser.dPower, bMoving});
}

/** Whether a hold keeps the light back. */
bool Controller::isDarkened() const
{
    return m_bHeld && !m_settings.bHoldKeepsLaser;
}

void Controller::hold(bool bHeld, int64_t s64NowUs)
{
    advance(s64NowUs);
    m_bHeld = bHeld;
    m_motion.setHeld(bHeld);
    processLines(s64NowUs); // one that waited for room is not taken now
    tellBeam(s64NowUs);
}

void Controller::softReset(int64_t s64NowUs)
{
    forgetJob();
    m_bHomed = false;
    m_strInput.clear();
    m_bAfterLine = false;
    m_deqLine.clear();
    m_answers.drop();
    m_laser = {};
    m_motion.setLaser({});
    tellBeam(s64NowUs);
    m_answers.tell(formatGreeting(), s64NowUs);
}

/** What is queued and what was modal. */
void Controller::forgetJob()
{
    m_motion.clear();
    m_deqHoming.clear();
    m_motion.setHeld(false);
    m_bHeld = false;
    m_bHoldTold = false;
    m_bLocked = false;
    m_bRelative = false;
    m_dFeed = POWER_UP_FEED;
}

void Controller::alarm()
{
    m_motion.clear();
    m_deqHoming.clear();
    m_bHomed = false;
    m_bLocked = true;
    if (!m_settings.bAlarmKeepsLaser) {
        m_laser.bOn = false;
        m_motion.setLaser(m_laser);
    }
}

void Controller::endMove(int64_t s64NowUs)
{
    if (!m_deqHoming.empty()) { // an alarm may have come with the move before
        m_bHomed = m_bHomed || m_deqHoming.front();
        m_deqHoming.pop_front();
    }
    if (m_bOnce) {
        return;
    }
    m_answers.tell(formatDone(), s64NowUs);
    // An M18 behind the move is answered in the same write.
    if (!m_deqLine.empty() && m_motion.isIdle() &&
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
        return m_motion.isFull() && !m_bHeld;
    case LINE_KIND_ACCEPTED:
        return usesQueue(line) && m_motion.isFull() && !m_bHeld;
    case LINE_KIND_SPOT:
        return !m_motion.isIdle() && !m_bHeld;
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
        alarm();
        return formatAlarm(fault.nValue);
    }
    if (LINE_KIND_UNLOCK == line.eKind) {
        m_bLocked = false;
        return formatOk();
    }
    if (isLaserOff(line) && !(m_bHeld && m_motion.isFull())) { // taken at any time
        return carryOut(line);
    }
    if (m_bLocked) {
        return formatError(ERROR_LOCKED);
    }
    if (m_bHeld && LINE_KIND_RESUME != line.eKind) {
        m_bHoldTold = true;
        return formatStatus(STATUS_HELD);
    }
    std::string strAnswer = execute(line, s64NowUs);
    if (!m_bHeld && std::exchange(m_bHoldTold, false)) {
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
        m_motion.queueMove({}, HOMING_FEED, true);
        m_deqHoming.push_back(true);
        return formatOk();
    case LINE_KIND_SPOT:
        m_bPilotOn = !line.bHasS || line.dS > 0;
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
    const bool bRelative = line.bRelative || (m_bRelative && !line.bAbsolute);
    Point target = m_motion.getDestination();
    const Point base = bRelative ? target : Point{};
    target[0] = line.bHasX ? base[0] + line.dX : target[0];
    target[1] = line.bHasY ? base[1] + line.dY : target[1];
    target[2] = line.bHasZ ? base[2] + line.dZ : target[2];
    for (const double dAxis : target) {
        if (std::fabs(dAxis) > MAX_TRAVEL_MM) {
            return formatError(ERROR_OUT_OF_RANGE); // nothing of the line is carried out
        }
    }
    m_bRelative = bRelative;
    m_dFeed = line.bHasF ? line.dF : m_dFeed;
    if (line.bHasS || LASER_AS_IT_IS != line.eLaser) {
        m_laser.dPower = line.bHasS ? line.dS : m_laser.dPower;
        m_laser.bOn = (LASER_AS_IT_IS == line.eLaser) ? m_laser.bOn : LASER_ON == line.eLaser;
        m_motion.queueLaser(m_laser);
    }
    if (line.bDwell) {
        m_motion.queueDwell(line.dP);
    }
    if (LINE_KIND_ACCEPTED != line.eKind) {
        const bool bPositioning = LINE_KIND_POSITION == line.eKind;
        m_motion.queueMove(target, m_dFeed, bPositioning);
        if (bPositioning) {
            m_deqHoming.push_back(false);
        }
    }
    return formatOk();
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
    if (const int64_t s64LeftUs = m_motion.getRemainingUs(); s64LeftUs >= 0) {
        s64DueUs = std::min(s64DueUs, s64NowUs + std::min(s64LeftUs, TICK_US));
    }
    if (m_loader.isActive()) {
        s64DueUs = std::min(s64DueUs, m_loader.getQuietUs());
    }
    if (isIdleOffDue()) {
        s64DueUs = std::min(s64DueUs, m_s64BusyUs + m_settings.s64IdleOffUs);
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
    forgetJob();
    m_bHomed = false;
    m_bPilotOn = !m_settings.bPilotOff;
    m_laser = {m_settings.bResetLaserOn, m_settings.bResetLaserOn ? FULL_POWER : 0};
    m_motion.setLaser(m_laser);
    tellBeam(s64NowUs);
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
        alarm();
        tellBeam(s64NowUs);
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
    const Point& position = m_motion.getPosition();
    char acText[200] = {0};
    snprintf(acText, sizeof(acText),
             "x=%.3f y=%.3f z=%.3f laser=%d power=%.0f pilot=%d moving=%d held=%d locked=%d "
             "homed=%d loading=%d lines=%d",
             position[0], position[1], position[2], m_beamLog.get().bOn ? 1 : 0,
             m_beamLog.get().dPower, m_bPilotOn ? 1 : 0, m_motion.isIdle() ? 0 : 1, m_bHeld ? 1 : 0,
             m_bLocked ? 1 : 0, m_bHomed ? 1 : 0, m_loader.isActive() ? 1 : 0, m_nLines);
    return acText;
}
