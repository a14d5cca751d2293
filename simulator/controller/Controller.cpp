// The virtual motion controller itself: lines in, answers out, an arm that moves meanwhile.
#include "Controller.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

static const double POWER_UP_FEED = 1000; // millimetres per minute
static const double HOMING_FEED = 3000;
static const int64_t TICK_US = 5000; // how often a moving arm's position is told
static const size_t MAX_INPUT = 4096;
static const size_t MAX_WAITING = 64;

static const int STATUS_HELD = 1;
static const int STATUS_RUNNING = 4;

namespace {

/** As long as the service's reply buffer, a zero byte in the middle. */
std::string garbage()
{
    std::string strResult;
    for (int i = 0; i < 64; ++i) {
        strResult += static_cast<char>(i * 37 % 256);
    }
    strResult[0] = '\xff';
    std::replace(strResult.begin(), strResult.end(), '\n', '\xfe');
    return strResult;
}

} // namespace

Controller::Controller(const ControllerSettings& settings, WireLog& wireLog)
    : m_settings(settings), m_wireLog(wireLog), m_motion(settings.dSpeedUp, settings.s64SettleUs),
      m_loader(settings.strImagePath, settings.s64ImageQuietUs), m_dFeed(POWER_UP_FEED)
{
    m_motion.setPosition(settings.powerUpPosition);
}

void Controller::setTrigger(std::function<void(const std::string&)> trigger)
{
    m_trigger = std::move(trigger);
}

void Controller::receive(const std::string& strBytes, int64_t s64NowUs)
{
    advance(s64NowUs);
    size_t uPos = 0;
    while (uPos < strBytes.size()) {
        if (m_loader.isActive()) {
            uPos += m_loader.take(strBytes.data() + uPos, strBytes.size() - uPos, s64NowUs);
            if (!m_loader.isActive()) {
                m_wireLog.record(s64NowUs, "image", m_loader.getResult());
            }
        } else {
            takeByte(strBytes[uPos++], s64NowUs);
        }
    }
}

void Controller::takeByte(char c, int64_t s64NowUs)
{
    if ('\n' != c) {
        if (m_strInput.size() < MAX_INPUT) {
            m_strInput += c;
        }
        return;
    }
    const std::string strLine = std::exchange(m_strInput, {});
    m_wireLog.record(s64NowUs, "rx", strLine);
    const bool bBelongsToLine = strLine.empty() && m_bAfterLine;
    m_bAfterLine = !strLine.empty();
    if (!bBelongsToLine) {
        m_deqLine.push_back(strLine);
        processLines(s64NowUs);
    }
}

void Controller::advance(int64_t s64NowUs)
{
    for (unsigned uEnded = m_motion.advance(s64NowUs); uEnded > 0; --uEnded) {
        endMove(s64NowUs);
    }
    processLines(s64NowUs);
    if (m_loader.endIfQuiet(s64NowUs)) {
        m_wireLog.record(s64NowUs, "image", m_loader.getResult());
    }
}

void Controller::endMove(int64_t s64NowUs)
{
    if (m_bOnce) {
        return;
    }
    m_deqAnswer.push_back({s64NowUs, formatDone()});
    // An M18 behind the move is answered in the same write.
    if (!m_deqLine.empty() && m_motion.isIdle() &&
        COMMAND_SPOT == parseLine(m_deqLine.front()).eKind) {
        m_pEndAnswer = &m_deqAnswer.back();
        const std::string strLine = std::move(m_deqLine.front());
        m_deqLine.pop_front();
        processLine(strLine, s64NowUs);
        m_pEndAnswer = nullptr;
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

bool Controller::mustWait(const Command& command) const
{
    switch (command.eKind) {
    case COMMAND_MOVE:
    case COMMAND_POSITION:
    case COMMAND_HOME:
        return m_motion.isFull() && !m_bHeld;
    case COMMAND_SPOT:
        return !m_motion.isIdle() && !m_bHeld;
    default:
        return false;
    }
}

void Controller::processLine(const std::string& strLine, int64_t s64NowUs)
{
    ++m_nLines;
    const unsigned uEpoch = m_uWireEpoch;
    const auto range = m_mapTrigger.equal_range(m_nLines);
    std::vector<std::string> vecInstruction;
    for (auto it = range.first; it != range.second; ++it) {
        vecInstruction.push_back(it->second);
    }
    m_mapTrigger.erase(range.first, range.second);
    for (const std::string& strInstruction : vecInstruction) {
        m_trigger(strInstruction);
    }
    if (uEpoch != m_uWireEpoch) {
        return; // the cable is out: the line was lost on it
    }
    const Fault fault = m_faultPlan.take();
    std::string strAnswer = answerFor(parseLine(strLine), fault, s64NowUs);
    if (FAULT_STATUS == fault.eKind) {
        strAnswer.insert(0, formatStatus(fault.nValue));
    }
    sendAnswer(strAnswer, fault, s64NowUs);
}

std::string Controller::answerFor(const Command& command, const Fault& fault, int64_t s64NowUs)
{
    if (FAULT_REFUSE == fault.eKind) {
        const bool bLocks = ERROR_BAD_NUMBER == fault.nValue || ERROR_LOCKED == fault.nValue;
        m_bLocked = m_bLocked || bLocks;
        return formatError(fault.nValue);
    }
    if (FAULT_ALARM == fault.eKind) {
        m_motion.clear();
        return lockWith(formatAlarm(fault.nValue));
    }
    if (COMMAND_UNLOCK == command.eKind) {
        m_bLocked = false;
        return formatOk();
    }
    if (COMMAND_LASER_OFF == command.eKind) { // safe at any time
        m_bSpotOn = false;
        return formatOk();
    }
    if (m_bLocked) {
        return formatError(ERROR_LOCKED);
    }
    if (m_bHeld && COMMAND_RESUME != command.eKind && COMMAND_HOLD != command.eKind) {
        m_bHoldTold = true;
        return formatStatus(STATUS_HELD);
    }
    std::string strAnswer = execute(command, s64NowUs);
    if (!m_bHeld && std::exchange(m_bHoldTold, false)) {
        return formatStatus(STATUS_RUNNING) + strAnswer;
    }
    return strAnswer;
}

std::string Controller::execute(const Command& command, int64_t s64NowUs)
{
    switch (command.eKind) {
    case COMMAND_REFUSED:
        if (ERROR_BAD_NUMBER == command.nError) {
            return lockWith(formatError(command.nError));
        }
        return formatError(command.nError);
    case COMMAND_HOLD:
    case COMMAND_RESUME:
        m_bHeld = COMMAND_HOLD == command.eKind;
        m_motion.setHeld(m_bHeld);
        return formatOk();
    case COMMAND_HOME:
        m_motion.queueMove({}, HOMING_FEED, true);
        return formatOk();
    case COMMAND_LASER_ON:
    case COMMAND_SPOT:
        m_bSpotOn = !command.bHasS || command.dS > 0;
        return formatOk();
    case COMMAND_LOADER:
        m_loader.begin(s64NowUs);
        return formatOk();
    default:
        return move(command);
    }
}

std::string Controller::move(const Command& command)
{
    m_bRelative = command.bRelative || (m_bRelative && !command.bAbsolute);
    if (command.bHasF) {
        m_dFeed = command.dF;
    }
    if (COMMAND_ACCEPTED == command.eKind) {
        return formatOk();
    }
    Point target = m_motion.getDestination();
    const Point base = m_bRelative ? target : Point{};
    target[0] = command.bHasX ? base[0] + command.dX : target[0];
    target[1] = command.bHasY ? base[1] + command.dY : target[1];
    target[2] = command.bHasZ ? base[2] + command.dZ : target[2];
    for (const double dAxis : target) {
        if (std::fabs(dAxis) > MAX_TRAVEL_MM) {
            return formatError(ERROR_OUT_OF_RANGE);
        }
    }
    m_motion.queueMove(target, m_dFeed, COMMAND_POSITION == command.eKind);
    return formatOk();
}

std::string Controller::lockWith(const std::string& strAnswer)
{
    m_bLocked = true;
    return strAnswer;
}

void Controller::sendAnswer(const std::string& strText, const Fault& fault, int64_t s64NowUs)
{
    switch (fault.eKind) {
    case FAULT_NO_ANSWER:
        return;
    case FAULT_LATE:
        m_deqAnswer.push_back({s64NowUs + static_cast<int64_t>(fault.nValue) * 1000, strText});
        return;
    case FAULT_HALF:
        m_deqAnswer.push_back({s64NowUs, strText.substr(0, strText.size() / 2)});
        return;
    case FAULT_DOUBLE:
        m_deqAnswer.push_back({s64NowUs, strText});
        break;
    case FAULT_GARBAGE:
        m_deqAnswer.push_back({s64NowUs, garbage()});
        return;
    default:
        break;
    }
    if (nullptr != m_pEndAnswer) {
        m_pEndAnswer->strText += strText;
        return;
    }
    m_deqAnswer.push_back({s64NowUs, strText});
}

bool Controller::takeAnswer(int64_t s64NowUs, std::string& strText)
{
    if (m_deqAnswer.empty() || m_deqAnswer.front().s64DueUs > s64NowUs) {
        return false;
    }
    strText = std::move(m_deqAnswer.front().strText);
    m_deqAnswer.pop_front();
    return true;
}

int64_t Controller::nextDueUs(int64_t s64NowUs) const
{
    int64_t s64DueUs = INT64_MAX;
    if (!m_deqAnswer.empty()) {
        s64DueUs = m_deqAnswer.front().s64DueUs;
    }
    if (const int64_t s64LeftUs = m_motion.getRemainingUs(); s64LeftUs >= 0) {
        s64DueUs = std::min(s64DueUs, s64NowUs + std::min(s64LeftUs, TICK_US));
    }
    if (m_loader.isActive()) {
        s64DueUs = std::min(s64DueUs, m_loader.getQuietUs());
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
    m_deqAnswer.clear();
    m_loader.end();
    m_pEndAnswer = nullptr;
}

void Controller::reset()
{
    dropWire();
    m_motion.clear();
    m_motion.setHeld(false);
    m_bHeld = false;
    m_bHoldTold = false;
    m_bLocked = false;
    m_bRelative = false;
    m_bSpotOn = true;
    m_dFeed = POWER_UP_FEED;
}

void Controller::addTrigger(int nLine, const std::string& strInstruction)
{
    m_mapTrigger.emplace(nLine, strInstruction);
}

bool Controller::instruct(const std::string& strInstruction, int64_t s64NowUs)
{
    const std::vector<std::string> vecWord = splitWords(strInstruction);
    if (vecWord.empty()) {
        return false;
    }
    if ("hold" == strInstruction || "go" == strInstruction) {
        advance(s64NowUs);
        m_bHeld = "hold" == strInstruction;
        m_motion.setHeld(m_bHeld);
        return true;
    }
    if ("once on" == strInstruction || "once off" == strInstruction) {
        m_bOnce = "once on" == strInstruction;
        return true;
    }
    if ("say" == vecWord[0] && strInstruction.size() > 4) {
        m_deqAnswer.push_back({s64NowUs, WireLog::unescape(strInstruction.substr(4))});
        return true;
    }
    return m_faultPlan.add(vecWord);
}

std::string Controller::describe() const
{
    const Point& position = m_motion.getPosition();
    char acText[160] = {0};
    snprintf(acText, sizeof(acText),
             "x=%.3f y=%.3f z=%.3f spot=%d moving=%d held=%d locked=%d loading=%d lines=%d",
             position[0], position[1], position[2], m_bSpotOn ? 1 : 0, m_motion.isIdle() ? 0 : 1,
             m_bHeld ? 1 : 0, m_bLocked ? 1 : 0, m_loader.isActive() ? 1 : 0, m_nLines);
    return acText;
}
