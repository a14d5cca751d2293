// A virtual motion controller that speaks Grbl 1.1: its wire, its states, its laser.
#include "GrblController.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "GrblText.h"

static const char* const GREETING = "\r\nGrbl 1.1h ['$' for help]\r\n";
static const char* const UNLOCK_HINT = "[MSG:'$H'|'$X' to unlock]\r\n";
static const char* const OK = "ok\r\n";

// Codes of "error:N" and "ALARM:N" as published.
static const int ERROR_NUMBER = 2;
static const int ERROR_DOLLAR = 3;
static const int ERROR_HOMING_OFF = 5;
static const int ERROR_NOT_IDLE = 8;
static const int ERROR_LOCKED = 9;
static const int ERROR_LINE = 11;
static const int ERROR_JOG_TRAVEL = 15;
static const int ERROR_JOG = 16;
static const int ALARM_SOFT_LIMIT = 2;
static const int ALARM_RESET_IN_MOTION = 3;
static const int ALARM_RESET_IN_HOMING = 6;

// Times that a controller with this firmware was measured at.
static const int64_t ANSWER_US = 2500;            // from a byte to the answer's first
static const int64_t BYTE_US = 87;                // at 115200 baud
static const int64_t GREET_AT_REST_US = 30000;    // from a reset to the greeting
static const int64_t GREET_IN_MOTION_US = 560000; // the same, when it cut motion short
static const int64_t SLOW_DOWN_US = 40000;        // from a hold until it is felt: what is prepared
static const double SEGMENT_SECONDS = 0.01;       // the power follows the speed in such steps

static const double SECONDS_PER_MINUTE = 60;
static const double US_PER_SECOND = 1e6;

// Real-time bytes.
static const unsigned char BYTE_SOFT_RESET = 0x18;
static const unsigned char BYTE_DOOR = 0x84;
static const unsigned char BYTE_JOG_CANCEL = 0x85;
static const unsigned char BYTE_SPINDLE_STOP = 0x9e;
static const unsigned char BYTE_COOLANT = 0xa0;

namespace {

std::string formatFailure(int nCode)
{
    return "error:" + std::to_string(nCode) + "\r\n";
}

bool startsWith(const std::string& strText, const char* pStart)
{
    return 0 == strText.rfind(pStart, 0);
}

Point plus(const Point& first, const Point& second)
{
    return {first[0] + second[0], first[1] + second[1], first[2] + second[2]};
}

Point minus(const Point& first, const Point& second)
{
    return {first[0] - second[0], first[1] - second[1], first[2] - second[2]};
}

/** A whole text that is a number. */
bool parseNumber(const std::string& strText, double& dValue)
{
    char* pRest = nullptr;
    dValue = strtod(strText.c_str(), &pRest);
    return !strText.empty() && '\0' == *pRest &&
           std::string::npos == strText.find_first_not_of("+-.0123456789");
}

} // namespace

GrblController::GrblController(const ControllerSettings& settings, WireLog& wireLog)
    : m_options(settings), m_wireLog(wireLog), m_beamLog(wireLog), m_interpreter(m_settings),
      m_origin(settings.powerUpPosition)
{
    applyLimits();
    begin(GREET_AT_REST_US, false);
}

bool GrblController::preset(int nNumber, double dValue)
{
    if (0 != m_settings.set(nNumber, dValue)) {
        return false;
    }
    applyLimits();
    begin(m_s64GreetUs, m_settings.isOn(GrblSettings::HOMING));
    return true;
}

void GrblController::setTrigger(std::function<void(const std::string&)> trigger)
{
    m_triggers.setTrigger(std::move(trigger));
}

void GrblController::applyLimits()
{
    Point speed{};
    Point acceleration{};
    for (int i = 0; i < 3; ++i) {
        speed[static_cast<size_t>(i)] =
            m_settings.get(GrblSettings::MAX_RATE + i) / SECONDS_PER_MINUTE;
        acceleration[static_cast<size_t>(i)] = m_settings.get(GrblSettings::ACCELERATION + i);
    }
    m_planner.setLimits(speed, acceleration, m_settings.get(GrblSettings::JUNCTION_DEVIATION));
}

/** As after any reset: nothing queued, nothing modal, everything off; the greeting follows. */
void GrblController::begin(int64_t s64GreetUs, bool bLock)
{
    m_planner.clear();
    m_interpreter.reset();
    m_interpreter.setPosition(m_planner.getPosition());
    m_strReceived.clear();
    m_strLine.clear();
    m_uLine = 0;
    m_cComment = '\0';
    m_deqAction.clear();
    m_bLineInWork = false;
    m_eSpindle = SPINDLE_OFF;
    m_dPower = 0;
    m_bCoolant = false;
    m_bNeedsReset = false;
    m_bHoldDone = false;
    m_bJogCancel = false;
    m_bSpindleStopped = false;
    m_bToggleStop = false;
    m_nFeedShare = 100;
    m_nRapidShare = 100;
    m_nSpindleShare = 100;
    m_nUntilOffset = 0;
    m_nUntilShares = 0;
    m_planner.setOverrides(1, 1);
    m_s64SlowDownUs = -1;
    m_s64StandsUs = -1;
    m_s64DwellUs = -1;
    m_s64HomingUs = -1;
    m_eState = bLock ? STATE_ALARM : STATE_IDLE;
    m_bGreeted = false;
    m_s64GreetUs = s64GreetUs;
}

void GrblController::greet()
{
    m_bGreeted = true;
    say(GREETING);
    if (STATE_ALARM == m_eState) {
        say(UNLOCK_HINT);
        return;
    }
    for (const auto& [nNumber, strLine] : m_mapStartup) {
        if (strLine.empty()) {
            continue;
        }
        std::vector<GrblAction> vecAction;
        const int nError = m_interpreter.interpret(strLine, vecAction);
        m_deqAction.insert(m_deqAction.end(), vecAction.begin(), vecAction.end());
        const std::string strResult = (0 == nError) ? OK : formatFailure(nError);
        m_deqAction.push_back({GRBL_SAY, {}, 0, false, ">" + strLine + ":" + strResult});
    }
}

void GrblController::softReset()
{
    const bool bHoming = STATE_HOME == m_eState;
    const bool bMoving = m_planner.isMoving() || bHoming;
    const bool bLock = STATE_ALARM == m_eState || bMoving;
    if (bHoming) {
        endHoming();
    }
    if (bMoving) {
        m_bHomed = false;
        say("ALARM:" + std::to_string(bHoming ? ALARM_RESET_IN_HOMING : ALARM_RESET_IN_MOTION) +
            "\r\n");
    }
    begin(m_s64NowUs + (bMoving ? GREET_IN_MOTION_US : GREET_AT_REST_US), bLock);
}

void GrblController::reset(int64_t s64NowUs)
{
    advance(s64NowUs);
    const Point head = getPosition();
    dropWire();
    m_planner.clear();
    m_planner.setPosition({});
    m_origin = head; // counted from here on
    m_bHomed = false;
    begin(m_s64NowUs + GREET_AT_REST_US, m_settings.isOn(GrblSettings::HOMING));
    tellBeam();
}

void GrblController::dropWire()
{
    m_deqAnswer.clear();
}

/** @param bNeedsReset  nothing else is taken until a reset */
void GrblController::alarm(int nCode, bool bNeedsReset)
{
    m_planner.clear();
    m_interpreter.setPosition(m_planner.getPosition());
    m_deqAction.clear();
    m_bLineInWork = false;
    m_eSpindle = SPINDLE_OFF;
    m_dPower = 0;
    m_bCoolant = false;
    m_s64SlowDownUs = -1;
    m_s64StandsUs = -1;
    m_s64DwellUs = -1;
    m_s64HomingUs = -1;
    m_eState = STATE_ALARM;
    m_bNeedsReset = bNeedsReset;
    m_bHomed = false;
    say("ALARM:" + std::to_string(nCode) + "\r\n");
    if (bNeedsReset) {
        say("[MSG:Reset to continue]\r\n");
    }
}

void GrblController::receive(const std::string& strBytes, int64_t s64NowUs)
{
    advance(s64NowUs);
    for (const char c : strBytes) {
        const auto uByte = static_cast<unsigned char>(c);
        if (takeRealtime(uByte)) {
            m_wireLog.record(m_s64NowUs, "byte", std::string(1, c));
            work();
            tellBeam();
        } else {
            takeByte(c);
        }
    }
}

void GrblController::takeByte(char c)
{
    if (m_strReceived.size() >= RECEIVE_BUFFER) {
        m_wireLog.record(m_s64NowUs, "overflow", std::string(1, c));
        return;
    }
    m_strReceived += c;
    if (m_bGreeted) {
        work();
    }
}

bool GrblController::takeRealtime(unsigned char uByte)
{
    switch (uByte) {
    case '?':
        if (STATE_HOME != m_eState) { // a homing run looks at resets alone
            report();
        }
        return true;
    case '!':
        if (STATE_JOG == m_eState) {
            cancelJog();
        } else if (STATE_IDLE == m_eState || STATE_RUN == m_eState) {
            beginHold(STATE_HOLD);
        }
        return true;
    case '~':
        if ((STATE_HOLD == m_eState || STATE_DOOR == m_eState) && m_bHoldDone) {
            endHold();
        }
        return true; // in the middle of the slow-down it is dropped
    case BYTE_SOFT_RESET:
        softReset();
        return true;
    case BYTE_DOOR:
        if (STATE_ALARM != m_eState && STATE_HOME != m_eState && STATE_SLEEP != m_eState) {
            beginHold(STATE_DOOR);
        }
        return true;
    case BYTE_JOG_CANCEL:
        if (STATE_JOG == m_eState) {
            cancelJog();
        }
        return true;
    default:
        if (uByte >= 0x80) {
            takeOverride(uByte);
            return true;
        }
        return false;
    }
}

void GrblController::takeOverride(unsigned char uByte)
{
    static const int STEPS[] = {10, -10, 1, -1};
    const auto step = [](int nShare, int nStep) { return std::clamp(nShare + nStep, 10, 200); };
    const int nFormer = m_nFeedShare * 1000000 + m_nRapidShare * 1000 + m_nSpindleShare;
    if (uByte >= 0x90 && uByte <= 0x94) {
        m_nFeedShare = (0x90 == uByte) ? 100 : step(m_nFeedShare, STEPS[uByte - 0x91]);
    } else if (uByte >= 0x95 && uByte <= 0x97) {
        m_nRapidShare = (0x95 == uByte) ? 100 : (0x96 == uByte) ? 50 : 25;
    } else if (uByte >= 0x99 && uByte <= 0x9d) {
        m_nSpindleShare = (0x99 == uByte) ? 100 : step(m_nSpindleShare, STEPS[uByte - 0x9a]);
    } else if (BYTE_SPINDLE_STOP == uByte && STATE_HOLD == m_eState && m_bHoldDone) {
        m_bToggleStop = !m_bToggleStop;
        m_bSpindleStopped = !m_bSpindleStopped;
    } else if (BYTE_COOLANT == uByte &&
               (STATE_IDLE == m_eState || STATE_RUN == m_eState || STATE_HOLD == m_eState)) {
        m_bCoolant = !m_bCoolant;
        m_nUntilShares = 0;
    }
    if (nFormer != m_nFeedShare * 1000000 + m_nRapidShare * 1000 + m_nSpindleShare) {
        m_nUntilShares = 0;
        m_planner.setOverrides(m_nFeedShare / 100.0, m_nRapidShare / 100.0);
    }
}

/** Move bytes from the receive buffer to the line. @return true when the line is whole */
bool GrblController::readLine(std::string& strLine)
{
    size_t uUsed = 0;
    bool bWhole = false;
    while (uUsed < m_strReceived.size() && !bWhole) {
        const char c = m_strReceived[uUsed++];
        bWhole = '\n' == c || '\r' == c;
        if (bWhole) {
            break;
        }
        if ('\0' != m_cComment) {
            m_cComment = ('(' == m_cComment && ')' == c) ? '\0' : m_cComment;
        } else if ('(' == c || ';' == c) {
            m_cComment = c;
        } else if (c > ' ' && '/' != c) {
            ++m_uLine;
            if (m_strLine.size() < LINE) {
                m_strLine += (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
            }
        }
    }
    m_strReceived.erase(0, uUsed);
    if (bWhole) {
        m_cComment = '\0';
        strLine = std::exchange(m_strLine, {});
    }
    return bWhole;
}

void GrblController::processLine(const std::string& strLine)
{
    const size_t uLength = std::exchange(m_uLine, 0);
    ++m_nLines;
    m_wireLog.record(m_s64NowUs, "rx", strLine);
    m_triggers.fire(m_nLines);
    m_fault = m_faultPlan.take();
    m_bLineInWork = true;
    int nError = 0;
    if (FAULT_REFUSE == m_fault.eKind) {
        nError = m_fault.nValue;
    } else if (FAULT_ALARM == m_fault.eKind) {
        alarm(m_fault.nValue, false);
        return;
    } else if (uLength >= LINE) {
        nError = ERROR_LINE;
    } else {
        nError = carryOut(strLine);
    }
    if (m_bLineInWork) {
        const std::string strResult = (0 == nError) ? OK : formatFailure(nError);
        m_deqAction.push_back({GRBL_SAY, {}, -1, false, strResult});
    }
}

int GrblController::carryOut(const std::string& strLine)
{
    if (strLine.empty()) {
        return 0;
    }
    if ('$' == strLine[0]) {
        return carryOutDollar(strLine);
    }
    if (STATE_ALARM == m_eState || STATE_JOG == m_eState) {
        return ERROR_LOCKED;
    }
    std::vector<GrblAction> vecAction;
    const Point offset = m_interpreter.getWorkOffset();
    const int nError = m_interpreter.interpret(strLine, vecAction);
    if (0 == nError) {
        m_deqAction.insert(m_deqAction.end(), vecAction.begin(), vecAction.end());
        m_nUntilOffset = (offset == m_interpreter.getWorkOffset()) ? m_nUntilOffset : 0;
    }
    return nError;
}

int GrblController::carryOutDollar(const std::string& strLine)
{
    const bool bAtRest = STATE_IDLE == m_eState || STATE_ALARM == m_eState;
    if (startsWith(strLine, "$J=")) {
        return jog(strLine.substr(3));
    }
    if ("$" == strLine) {
        say("[HLP:$$ $# $G $I $N $x=val $Nx=line $J=line $SLP $C $X $H ~ ! ? ctrl-x]\r\n");
        return 0;
    }
    if ("$G" == strLine) {
        say(m_interpreter.getModes().format());
        return 0;
    }
    if ("$C" == strLine) {
        if (STATE_CHECK != m_eState && STATE_IDLE != m_eState) {
            return ERROR_NOT_IDLE;
        }
        toggleCheck();
        return 0;
    }
    if ("$X" == strLine) {
        if (STATE_ALARM == m_eState) {
            say("[MSG:Caution: Unlocked]\r\n");
            m_eState = STATE_IDLE;
        }
        return 0;
    }
    if (!bAtRest) {
        return ERROR_NOT_IDLE;
    }
    if ("$$" == strLine) {
        say(m_settings.format());
    } else if ("$#" == strLine) {
        say(m_interpreter.getOffsets().format());
    } else if ("$I" == strLine) {
        say("[VER:1.1h.20190830:]\r\n");
        say("[OPT:V,15,128]\r\n");
    } else if ("$N" == strLine) {
        for (const auto& [nNumber, strStored] : m_mapStartup) {
            say("$N" + std::to_string(nNumber) + "=" + strStored + "\r\n");
        }
    } else if ("$H" == strLine) {
        if (!m_settings.isOn(GrblSettings::HOMING)) {
            return ERROR_HOMING_OFF;
        }
        m_deqAction.push_back({GRBL_HOME});
    } else if ("$SLP" == strLine) {
        say("[MSG:Sleeping]\r\n");
        m_eState = STATE_SLEEP;
        m_eSpindle = SPINDLE_OFF;
        m_bCoolant = false;
    } else if ("$RST=$" == strLine || "$RST=#" == strLine || "$RST=*" == strLine) {
        if ('#' != strLine.back()) {
            m_settings.restore();
            applyLimits();
        }
        if ('$' != strLine.back()) {
            m_interpreter.forgetOffsets();
            m_nUntilOffset = 0;
        }
        say("[MSG:Restoring defaults]\r\n");
    } else if (startsWith(strLine, "$N")) {
        return storeStartupLine(strLine);
    } else {
        return storeSetting(strLine);
    }
    return 0;
}

int GrblController::storeSetting(const std::string& strLine)
{
    const size_t uSign = strLine.find('=');
    double dNumber = 0;
    if (!parseNumber(strLine.substr(1, uSign - 1), dNumber)) {
        return (strLine[1] >= '0' && strLine[1] <= '9') ? ERROR_NUMBER : ERROR_DOLLAR;
    }
    if (std::string::npos == uSign) {
        return ERROR_DOLLAR;
    }
    double dValue = 0;
    if (!parseNumber(strLine.substr(uSign + 1), dValue)) {
        return ERROR_NUMBER;
    }
    if (dNumber < 0 || dNumber > 255 || std::floor(dNumber) != dNumber) {
        return ERROR_DOLLAR;
    }
    const int nError = m_settings.set(static_cast<int>(dNumber), dValue);
    applyLimits();
    return nError;
}

int GrblController::storeStartupLine(const std::string& strLine)
{
    const bool bForm = strLine.size() >= 4 && '=' == strLine[3];
    const int nNumber = (strLine.size() > 2) ? strLine[2] - '0' : -1;
    if (!bForm || 0 == m_mapStartup.count(nNumber)) {
        return ERROR_DOLLAR;
    }
    if (STATE_IDLE != m_eState) {
        return ERROR_NOT_IDLE;
    }
    GrblInterpreter trial(m_settings);
    std::vector<GrblAction> vecIgnored;
    const int nError = trial.interpret(strLine.substr(4), vecIgnored);
    if (0 == nError) {
        m_mapStartup[nNumber] = strLine.substr(4);
    }
    return nError;
}

int GrblController::jog(const std::string& strLine)
{
    if (STATE_IDLE != m_eState && STATE_JOG != m_eState) {
        return ERROR_NOT_IDLE;
    }
    if (strLine.empty()) {
        return ERROR_JOG;
    }
    std::vector<GrblAction> vecAction;
    const Point former = m_planner.getDestination();
    if (const int nError = m_interpreter.interpretJog(strLine, vecAction); 0 != nError) {
        return nError;
    }
    for (GrblAction& action : vecAction) {
        if (isOutside(action.block.target)) {
            m_interpreter.setPosition(former);
            return ERROR_JOG_TRAVEL;
        }
        action.bOn = true; // a jog
        action.block.eSpindle = SPINDLE_OFF;
        action.block.dPower = 0;
        m_deqAction.push_back(action);
    }
    return 0;
}

void GrblController::toggleCheck()
{
    if (STATE_CHECK == m_eState) {
        say("[MSG:Disabled]\r\n");
        say(OK); // a reset follows
        softReset();
        return;
    }
    say("[MSG:Enabled]\r\n");
    m_eState = STATE_CHECK;
}

void GrblController::advance(int64_t s64NowUs)
{
    work();
    for (int64_t s64Us = nextEventUs(); s64Us >= 0 && s64Us <= s64NowUs; s64Us = nextEventUs()) {
        stepTo(std::max(s64Us, m_s64NowUs));
        work();
        tellBeam();
    }
    stepTo(std::max(s64NowUs, m_s64NowUs));
    work();
    tellBeam();
}

int64_t GrblController::nextEventUs() const
{
    int64_t s64Us = INT64_MAX;
    const auto consider = [this, &s64Us](int64_t s64AtUs) {
        s64Us = (s64AtUs > m_s64NowUs) ? std::min(s64Us, s64AtUs) : s64Us;
    };
    consider(m_bGreeted ? -1 : m_s64GreetUs);
    consider(m_s64SlowDownUs);
    consider(m_s64StandsUs);
    consider(m_s64DwellUs);
    consider(m_s64HomingUs);
    const auto inSeconds = [this, &consider](double dSeconds) {
        if (dSeconds >= 0) {
            consider(m_s64NowUs + 1 +
                     static_cast<int64_t>(dSeconds / m_options.dSpeedUp * US_PER_SECOND));
        }
    };
    inSeconds(m_planner.getNextChange());
    if (const double dStop = m_planner.getTimeToStop(); dStop >= 0) {
        const double dDark = dStop - getLastSegment(); // where dynamic power ends
        inSeconds((dDark > 0) ? dDark : -1);
    }
    return (INT64_MAX == s64Us) ? -1 : s64Us;
}

/** Seconds of the last step or segment of a block that ends at rest: its power is that of rest. */
double GrblController::getLastSegment() const
{
    const double dStep = 1 / std::max(1.0, m_settings.get(GrblSettings::STEPS));
    return std::max(SEGMENT_SECONDS, std::sqrt(2 * dStep / m_planner.getAcceleration()));
}

void GrblController::stepTo(int64_t s64Us)
{
    const double dSeconds = static_cast<double>(s64Us - m_s64NowUs) / US_PER_SECOND;
    m_s64NowUs = s64Us;
    if (m_planner.isMoving()) {
        m_planner.advance(dSeconds * m_options.dSpeedUp);
    }
}

bool GrblController::isSuspended() const
{
    const bool bHeld = STATE_HOLD == m_eState || STATE_DOOR == m_eState;
    return !m_bGreeted || bHeld || STATE_HOME == m_eState || STATE_SLEEP == m_eState ||
           m_bNeedsReset;
}

/** Everything that can be done at this moment. */
void GrblController::work()
{
    workStates();
    while (!isSuspended()) {
        if (!m_deqAction.empty()) {
            if (!workAction(m_deqAction.front())) {
                return;
            }
            if (!m_deqAction.empty()) { // unless a reset has come with it
                m_deqAction.pop_front();
            }
            workStates();
            continue;
        }
        m_bLineInWork = false;
        std::string strLine;
        if (!readLine(strLine)) {
            return;
        }
        processLine(strLine);
    }
}

void GrblController::workStates()
{
    if (!m_bGreeted && m_s64NowUs >= m_s64GreetUs) {
        greet();
    }
    if (m_s64HomingUs >= 0 && m_s64NowUs >= m_s64HomingUs) {
        endHoming();
    }
    if (m_s64SlowDownUs >= 0 && m_s64NowUs >= m_s64SlowDownUs) {
        m_s64SlowDownUs = -1;
        m_planner.hold();
    }
    const bool bRuns = STATE_RUN == m_eState || STATE_JOG == m_eState ||
                       ((STATE_HOLD == m_eState || STATE_DOOR == m_eState) && !m_bHoldDone);
    if (!bRuns || m_planner.isMoving()) {
        m_s64StandsUs = -1;
        return;
    }
    if (m_s64StandsUs < 0) { // the motors' idle delay passes before anything else does
        m_s64StandsUs = m_s64NowUs + static_cast<int64_t>(m_settings.get(1)) * 1000;
    }
    if (m_s64NowUs < m_s64StandsUs) {
        return;
    }
    m_s64StandsUs = -1;
    m_s64SlowDownUs = -1;
    if (m_bJogCancel) {
        m_bJogCancel = false;
        m_planner.clear();
        m_interpreter.setPosition(m_planner.getPosition());
        m_eState = STATE_IDLE;
    } else if (STATE_RUN == m_eState || STATE_JOG == m_eState) {
        m_eState = STATE_IDLE;
    } else {
        m_bHoldDone = true;
        m_bSpindleStopped = m_settings.isOn(GrblSettings::LASER_MODE) || STATE_DOOR == m_eState;
    }
}

bool GrblController::isSynced() const
{
    return m_planner.isEmpty() && m_s64StandsUs < 0 && STATE_RUN != m_eState &&
           STATE_JOG != m_eState;
}

bool GrblController::workAction(GrblAction& action)
{
    const bool bCheck = STATE_CHECK == m_eState;
    switch (action.eKind) {
    case GRBL_LIMITS:
        if (!bCheck && isOutside(action.block.target)) {
            alarm(ALARM_SOFT_LIMIT, true);
        }
        return true;
    case GRBL_MOVE:
        if (bCheck) {
            return true;
        }
        if (m_planner.isFull()) {
            return false;
        }
        m_planner.queue(action.block);
        if (m_planner.isMoving() && STATE_IDLE == m_eState) {
            m_eState = action.bOn ? STATE_JOG : STATE_RUN;
        }
        m_s64StandsUs = -1;
        return true;
    case GRBL_SPINDLE:
    case GRBL_COOLANT:
        if (!isSynced()) {
            return false;
        }
        if (GRBL_COOLANT == action.eKind) {
            m_bCoolant = action.bOn && !bCheck;
            m_nUntilShares = 0;
        } else {
            m_eSpindle = bCheck ? SPINDLE_OFF : action.block.eSpindle;
            m_dPower = action.block.dPower;
        }
        return true;
    case GRBL_DWELL:
        if (!isSynced()) {
            return false;
        }
        if (m_s64DwellUs < 0) {
            m_s64DwellUs =
                m_s64NowUs + static_cast<int64_t>((bCheck ? 0 : action.dSeconds) * US_PER_SECOND);
        }
        if (m_s64NowUs < m_s64DwellUs) {
            return false;
        }
        m_s64DwellUs = -1;
        return true;
    case GRBL_SYNC:
        return isSynced();
    case GRBL_PAUSE:
        return bCheck || pause();
    case GRBL_HOME:
        beginHoming();
        return true;
    default: // GRBL_SAY
        if (action.dSeconds < 0) {
            sendAnswer(action.strText, m_fault);
        } else {
            say(action.strText);
        }
        return true;
    }
}

bool GrblController::pause()
{
    if (!isSynced()) {
        return false;
    }
    beginHold(STATE_HOLD);
    return true;
}

void GrblController::beginHold(STATE_E eState)
{
    const bool bFurther = STATE_HOLD == m_eState || STATE_DOOR == m_eState;
    m_bWasIdle = bFurther ? m_bWasIdle : !m_planner.isMoving() && m_s64StandsUs < 0;
    const bool bAtRest = m_bWasIdle || (bFurther && m_bHoldDone);
    m_eState = eState;
    if (bAtRest) {
        m_bHoldDone = true;
        m_bSpindleStopped =
            m_bSpindleStopped || m_settings.isOn(GrblSettings::LASER_MODE) || STATE_DOOR == eState;
    } else if (!bFurther) {
        m_bHoldDone = false;
        m_s64SlowDownUs = m_s64NowUs + SLOW_DOWN_US;
    }
}

void GrblController::endHold()
{
    if (m_bSpindleStopped && SPINDLE_OFF != m_eSpindle) {
        say("[MSG:Restoring spindle]\r\n");
    }
    m_bSpindleStopped = false;
    m_bToggleStop = false;
    m_bHoldDone = false;
    m_planner.resume();
    m_eState = m_planner.isEmpty() ? STATE_IDLE : STATE_RUN;
}

void GrblController::cancelJog()
{
    if (!m_bJogCancel) {
        m_bJogCancel = true;
        m_deqAction.erase(std::remove_if(m_deqAction.begin(), m_deqAction.end(),
                                         [](const GrblAction& action) { return action.bOn; }),
                          m_deqAction.end());
        m_s64SlowDownUs = m_s64NowUs + SLOW_DOWN_US;
    }
}

bool GrblController::isOutside(const Point& target) const
{
    if (!m_settings.isOn(GrblSettings::SOFT_LIMITS)) {
        return false;
    }
    for (size_t i = 0; i < target.size(); ++i) {
        const double dTravel = m_settings.get(GrblSettings::TRAVEL + static_cast<int>(i));
        if (target[i] > 1e-6 || target[i] < -dTravel - 1e-6) {
            return true;
        }
    }
    return false;
}

/** The switches are where the machine position is 0, or at the travel's other end. */
void GrblController::beginHoming()
{
    m_eState = STATE_HOME;
    m_homingFrom = getPosition();
    m_s64HomingFromUs = m_s64NowUs;
    const double dPullOff = m_settings.get(GrblSettings::HOMING_PULL_OFF);
    double dWay = 0;
    for (const double dAxis : m_homingFrom) {
        dWay = std::max(dWay, std::fabs(dAxis));
    }
    const double dMinutes = dWay / std::max(1.0, m_settings.get(GrblSettings::HOMING_SEEK)) +
                            2 * dPullOff / std::max(1.0, m_settings.get(GrblSettings::HOMING_FEED));
    const double dSeconds = dMinutes * SECONDS_PER_MINUTE / m_options.dSpeedUp +
                            4 * m_settings.get(GrblSettings::HOMING_DEBOUNCE_MS) / 1000;
    m_s64HomingUs = m_s64NowUs + static_cast<int64_t>(dSeconds * US_PER_SECOND);
}

void GrblController::endHoming()
{
    const bool bWhole = m_s64NowUs >= m_s64HomingUs;
    if (bWhole) {
        const auto nDirection =
            static_cast<unsigned>(m_settings.get(GrblSettings::HOMING_DIRECTION));
        const double dPullOff = m_settings.get(GrblSettings::HOMING_PULL_OFF);
        Point home{};
        for (size_t i = 0; i < home.size(); ++i) {
            const double dTravel = m_settings.get(GrblSettings::TRAVEL + static_cast<int>(i));
            home[i] = (0 != (nDirection >> i & 1U)) ? dPullOff - dTravel : -dPullOff;
        }
        m_origin = {};
        m_planner.setPosition(home);
        m_bHomed = true;
    } else { // cut short: the head is somewhere on its way
        m_origin = minus(getPosition(), m_planner.getPosition());
    }
    m_s64HomingUs = -1;
    m_interpreter.setPosition(m_planner.getPosition());
    m_eState = STATE_IDLE;
}

Point GrblController::getPosition() const
{
    if (m_s64HomingUs >= 0) { // straight there; the way along each axis is not shown
        const double dAll = static_cast<double>(m_s64HomingUs - m_s64HomingFromUs);
        const double dShare = static_cast<double>(m_s64NowUs - m_s64HomingFromUs) / dAll;
        return {m_homingFrom[0] * (1 - dShare), m_homingFrom[1] * (1 - dShare),
                m_homingFrom[2] * (1 - dShare)};
    }
    return plus(m_origin, m_planner.getPosition());
}

Beam GrblController::getLight() const
{
    const bool bLaser = m_settings.isOn(GrblSettings::LASER_MODE);
    const bool bMoving = m_planner.isMoving();
    Beam beam{false, m_dPower, bMoving || m_s64HomingUs >= 0};
    SPINDLE_E eSpindle = m_eSpindle;
    if (bLaser && bMoving) {
        eSpindle = m_planner.getCurrent().eSpindle;
        beam.dPower = m_planner.getCurrent().dPower;
    }
    beam.dPower =
        std::min(beam.dPower * m_nSpindleShare / 100, m_settings.get(GrblSettings::MAX_POWER));
    beam.bOn = SPINDLE_OFF != eSpindle && beam.dPower > 0 && !m_bSpindleStopped;
    if (bLaser && SPINDLE_DYNAMIC == eSpindle) {
        const double dStop = m_planner.getTimeToStop();
        const bool bLast = dStop >= 0 && dStop <= getLastSegment() + 1e-6;
        beam.bOn = beam.bOn && bMoving && !bLast;
    }
    return beam;
}

void GrblController::tellBeam()
{
    if (m_settings.isOn(GrblSettings::LASER_MODE) && m_planner.isMoving()) {
        m_eSpindle = m_planner.getCurrent().eSpindle; // where it stays when the planner runs dry
        m_dPower = m_planner.getCurrent().dPower;
    }
    m_beamLog.update(m_s64NowUs, getLight());
}

void GrblController::say(const std::string& strText)
{
    const auto s64Wire = static_cast<int64_t>(strText.size()) * BYTE_US;
    m_s64WireUs = std::max(m_s64NowUs + ANSWER_US, m_s64WireUs) + s64Wire;
    m_deqAnswer.push_back({m_s64WireUs, strText});
}

void GrblController::sendAnswer(const std::string& strText, const Fault& fault)
{
    switch (fault.eKind) {
    case FAULT_NO_ANSWER:
        return;
    case FAULT_LATE:
        say(strText);
        m_deqAnswer.back().s64DueUs += static_cast<int64_t>(fault.nValue) * 1000;
        m_s64WireUs = m_deqAnswer.back().s64DueUs;
        return;
    case FAULT_HALF:
        say(strText.substr(0, strText.size() / 2));
        return;
    case FAULT_GARBAGE:
        say(makeGarbage(0x80));
        return;
    case FAULT_DOUBLE:
        say(strText);
        break;
    default:
        break;
    }
    say(strText);
}

bool GrblController::takeAnswer(int64_t s64NowUs, std::string& strText)
{
    while (!m_deqAnswer.empty() && m_deqAnswer.front().s64DueUs <= s64NowUs) {
        strText = std::move(m_deqAnswer.front().strText);
        m_deqAnswer.pop_front();
        if (!m_bMuted) {
            return true;
        }
    }
    return false;
}

int64_t GrblController::nextDueUs(int64_t s64NowUs) const
{
    int64_t s64Us = nextEventUs();
    if (!m_deqAnswer.empty()) {
        const int64_t s64DueUs = m_deqAnswer.front().s64DueUs;
        s64Us = (s64Us < 0) ? s64DueUs : std::min(s64Us, s64DueUs);
    }
    if (m_planner.isMoving() || m_s64HomingUs >= 0) { // the scene wants to be told
        s64Us = std::min(s64Us, s64NowUs + 5000);
    }
    return s64Us;
}

std::string GrblController::formatState() const
{
    switch (m_eState) {
    case STATE_IDLE:
        return "Idle";
    case STATE_RUN:
        return "Run";
    case STATE_HOLD:
        return m_bHoldDone ? "Hold:0" : "Hold:1";
    case STATE_JOG:
        return "Jog";
    case STATE_ALARM:
        return "Alarm";
    case STATE_DOOR:
        return m_bHoldDone ? "Door:0" : "Door:2";
    case STATE_CHECK:
        return "Check";
    case STATE_HOME:
        return "Home";
    default:
        return "Sleep";
    }
}

void GrblController::report()
{
    const auto nMask = static_cast<unsigned>(m_settings.get(GrblSettings::STATUS_REPORT));
    const Point& machine = m_planner.getPosition();
    const Point offset = m_interpreter.getWorkOffset();
    const bool bMachine = 0 != (nMask & 1U);
    std::string strText = "<" + formatState() + (bMachine ? "|MPos:" : "|WPos:") +
                          formatPoint(bMachine ? machine : minus(machine, offset));
    if (0 != (nMask & 2U)) {
        strText += "|Bf:" + std::to_string(m_planner.getFree()) + "," +
                   std::to_string(RECEIVE_BUFFER - m_strReceived.size());
    }
    const Beam light = getLight();
    const bool bScaled = m_planner.isMoving() && m_settings.isOn(GrblSettings::LASER_MODE) &&
                         SPINDLE_DYNAMIC == m_planner.getCurrent().eSpindle;
    const double dPower = light.bOn ? light.dPower * (bScaled ? m_planner.getSpeedShare() : 1) : 0;
    char acText[60] = {0};
    snprintf(acText, sizeof(acText), "|FS:%.0f,%.0f", m_planner.getSpeed() * SECONDS_PER_MINUTE,
             dPower);
    strText += acText;
    const bool bBusy = STATE_IDLE != m_eState && STATE_ALARM != m_eState;
    if (m_nUntilOffset > 0) {
        --m_nUntilOffset;
    } else {
        m_nUntilOffset = bBusy ? 29 : 9;
        m_nUntilShares = std::max(m_nUntilShares, 1);
        strText += "|WCO:" + formatPoint(offset);
    }
    if (m_nUntilShares > 0) {
        --m_nUntilShares;
    } else {
        m_nUntilShares = bBusy ? 19 : 9;
        strText += "|Ov:" + std::to_string(m_nFeedShare) + "," + std::to_string(m_nRapidShare) +
                   "," + std::to_string(m_nSpindleShare);
        const bool bSpindle = SPINDLE_OFF != m_eSpindle && !m_bSpindleStopped;
        if (bSpindle || m_bCoolant) {
            strText += "|A:";
            strText += bSpindle ? ((SPINDLE_CONSTANT == m_eSpindle) ? "S" : "C") : "";
            strText += m_bCoolant ? "F" : "";
        }
    }
    say(strText + ">\r\n");
}

void GrblController::addTrigger(int nLine, const std::string& strInstruction)
{
    m_triggers.add(nLine, strInstruction);
}

bool GrblController::instruct(const std::string& strInstruction, int64_t s64NowUs)
{
    const std::vector<std::string> vecWord = splitWords(strInstruction);
    int nCode = 0;
    if (vecWord.empty()) {
        return false;
    }
    advance(s64NowUs);
    if ("hold" == strInstruction || "go" == strInstruction) { // the button at the machine
        takeRealtime(("hold" == strInstruction) ? '!' : '~');
    } else if ("mute" == strInstruction || "unmute" == strInstruction) {
        m_bMuted = "mute" == strInstruction;
    } else if ("restart" == strInstruction) {
        reset(s64NowUs);
    } else if (2 == vecWord.size() && "alarm-now" == vecWord[0] && parseCount(vecWord[1], nCode)) {
        alarm(nCode, nCode <= ALARM_SOFT_LIMIT);
    } else if ("say" == vecWord[0] && strInstruction.size() > 4) {
        say(WireLog::unescape(strInstruction.substr(4)));
    } else {
        return "status" != vecWord[0] && m_faultPlan.add(vecWord);
    }
    work();
    tellBeam();
    return true;
}

std::string GrblController::describe() const
{
    const Point head = getPosition();
    char acText[240] = {0};
    snprintf(acText, sizeof(acText),
             "x=%.3f y=%.3f z=%.3f laser=%d power=%.0f pilot=%d moving=%d held=%d locked=%d "
             "homed=%d loading=0 lines=%d state=%s",
             head[0], head[1], head[2], m_beamLog.get().bOn ? 1 : 0, m_beamLog.get().dPower,
             m_bCoolant ? 1 : 0, m_beamLog.get().bMoving ? 1 : 0,
             (STATE_HOLD == m_eState || STATE_DOOR == m_eState) ? 1 : 0,
             (STATE_ALARM == m_eState) ? 1 : 0, m_bHomed ? 1 : 0, m_nLines, formatState().c_str());
    return acText;
}
