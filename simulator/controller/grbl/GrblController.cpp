// A virtual motion controller that speaks Grbl 1.1: its wire, its lines, its resets.
#include "GrblController.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

#include "GrblErrors.h"
#include "GrblText.h"

static const char* const GREETING = "\r\nGrbl 1.1h ['$' for help]\r\n";
static const char* const UNLOCK_HINT = "[MSG:'$H'|'$X' to unlock]\r\n";

// Times that a controller with this firmware was measured at.
static const int64_t GREET_AT_REST_US = 30000;    // from a reset to the greeting
static const int64_t GREET_IN_MOTION_US = 560000; // the same, when it cut motion short

static const int64_t TICK_US = 5000; // how often a moving head's position is updated

GrblController::GrblController(const ControllerSettings& settings, ControllerJournal& journal)
    : m_journal(journal), m_interpreter(m_settings),
      m_machine(settings, m_settings, m_interpreter, journal),
      m_systemCommands(m_settings, m_interpreter, m_machine, m_statusReport, m_transmitter)
{
    begin(GREET_AT_REST_US, false);
}

bool GrblController::preset(int nNumber, double dValue)
{
    if (0 != m_settings.set(nNumber, dValue)) {
        return false;
    }
    m_machine.applySettings();
    begin(m_s64GreetUs, m_settings.isOn(GrblSettings::HOMING));
    return true;
}

void GrblController::setTrigger(std::function<void(const std::string&)> trigger)
{
    m_triggers.setTrigger(std::move(trigger));
}

/** As after any reset: nothing queued, nothing modal, everything off; the greeting follows. */
void GrblController::begin(int64_t s64GreetUs, bool bLock)
{
    m_interpreter.reset();
    m_machine.reset(bLock);
    m_receiveBuffer.clear();
    m_statusReport = GrblStatusReport();
    m_deqAction.clear();
    m_bLineInWork = false;
    m_bGreeted = false;
    m_s64GreetUs = s64GreetUs;
}

void GrblController::greet()
{
    m_bGreeted = true;
    say(GREETING);
    if (GRBL_STATE_ALARM == m_machine.getState()) {
        say(UNLOCK_HINT);
        return;
    }
    m_systemCommands.start(m_deqAction);
}

void GrblController::softReset()
{
    const bool bAlarm = GRBL_STATE_ALARM == m_machine.getState();
    const int nAlarm = m_machine.cutShort();
    const bool bMoving = 0 != nAlarm;
    if (bMoving) {
        say(formatAlarmCode(nAlarm));
    }
    begin(m_machine.getNowUs() + (bMoving ? GREET_IN_MOTION_US : GREET_AT_REST_US),
          bAlarm || bMoving);
}

void GrblController::reset(int64_t s64NowUs)
{
    advance(s64NowUs);
    dropWire();
    m_machine.loseOrigin();
    begin(m_machine.getNowUs() + GREET_AT_REST_US, m_settings.isOn(GrblSettings::HOMING));
    m_machine.tellBeam();
}

void GrblController::booted(int64_t s64NowUs)
{
    reset(s64NowUs); // what came while it booted is lost, and the greeting comes now
}

void GrblController::dropWire()
{
    m_transmitter.drop();
}

/** @param bNeedsReset  nothing else is taken until a reset */
void GrblController::alarm(int nCode, bool bNeedsReset)
{
    m_machine.alarm(bNeedsReset);
    m_deqAction.clear();
    m_bLineInWork = false;
    say(formatAlarmCode(nCode));
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
            m_journal.record(m_machine.getNowUs(), "byte", std::string(1, c));
            work();
            m_machine.tellBeam();
        } else {
            takeByte(c);
        }
    }
}

void GrblController::takeByte(char c)
{
    if (!m_receiveBuffer.put(c)) {
        m_journal.record(m_machine.getNowUs(), "overflow", std::string(1, c));
        return;
    }
    if (m_bGreeted) {
        work();
    }
}

void GrblController::processLine(const GrblReceiveBuffer::Line& line)
{
    ++m_nLines;
    m_journal.record(m_machine.getNowUs(), "rx", line.strText);
    m_triggers.fire(m_nLines);
    m_fault = m_faultPlan.take();
    m_bLineInWork = true;
    int nError = 0;
    if (FAULT_REFUSE == m_fault.eKind) {
        nError = m_fault.nValue;
    } else if (FAULT_ALARM == m_fault.eKind) {
        alarm(m_fault.nValue, false);
    } else if (line.bTooLong) {
        nError = GRBL_ERROR_LINE;
    } else {
        nError = carryOut(line.strText);
    }
    if (m_bLineInWork) {
        m_deqAction.push_back({GRBL_RESULT, {}, 0, false, formatResult(nError)});
    }
}

int GrblController::carryOut(const std::string& strLine)
{
    if (strLine.empty()) {
        return 0;
    }
    if ('$' == strLine[0]) {
        const int nError = m_systemCommands.carryOut(strLine, m_deqAction);
        if (GrblSystemCommands::RESET == nError) {
            softReset();
        }
        return nError;
    }
    if (GRBL_STATE_ALARM == m_machine.getState() || GRBL_STATE_JOG == m_machine.getState()) {
        return GRBL_ERROR_LOCKED;
    }
    std::vector<GrblAction> vecAction;
    const Point offset = m_interpreter.getWorkOffset();
    const int nError = m_interpreter.interpret(strLine, vecAction);
    m_deqAction.insert(m_deqAction.end(), vecAction.begin(), vecAction.end());
    if (offset != m_interpreter.getWorkOffset()) {
        m_statusReport.tellOffset();
    }
    return nError;
}

void GrblController::advance(int64_t s64NowUs)
{
    const auto stepTo = [this](int64_t s64Us) {
        m_machine.stepTo(std::max(s64Us, m_machine.getNowUs()));
        work();
        m_machine.tellBeam();
    };
    work();
    for (int64_t s64Us = nextEventUs(); s64Us >= 0 && s64Us <= s64NowUs; s64Us = nextEventUs()) {
        stepTo(s64Us);
    }
    stepTo(s64NowUs);
}

int64_t GrblController::nextEventUs() const
{
    const int64_t s64Us = m_machine.nextEventUs();
    if (m_bGreeted || m_s64GreetUs <= m_machine.getNowUs()) {
        return s64Us;
    }
    return (s64Us < 0) ? m_s64GreetUs : std::min(s64Us, m_s64GreetUs);
}

/** Do everything that can be done at this moment. */
void GrblController::work()
{
    update();
    while (m_bGreeted && !m_machine.isSuspended()) {
        if (!m_deqAction.empty()) {
            if (!workAction()) {
                return;
            }
            update();
            continue;
        }
        m_bLineInWork = false;
        GrblReceiveBuffer::Line line;
        if (!m_receiveBuffer.takeLine(line)) {
            return;
        }
        processLine(line);
    }
}

void GrblController::update()
{
    if (!m_bGreeted && m_machine.getNowUs() >= m_s64GreetUs) {
        greet();
    }
    m_machine.update();
}

/** Carry out the first action. @return false when it has to wait */
bool GrblController::workAction()
{
    const GrblAction& action = m_deqAction.front();
    if (GRBL_SAY == action.eKind) {
        say(action.strText);
    } else if (GRBL_RESULT == action.eKind) {
        m_transmitter.sayWithFault(action.strText, m_fault, m_machine.getNowUs());
    } else {
        switch (m_machine.carryOut(action)) {
        case GrblMachine::RESULT_WAIT:
            return false;
        case GrblMachine::RESULT_OUTSIDE:
            alarm(GRBL_ALARM_SOFT_LIMIT, true);
            return true; // the actions are gone
        default:
            break;
        }
        if (GRBL_COOLANT == action.eKind) {
            m_statusReport.tellOverrides();
        }
    }
    m_deqAction.pop_front();
    return true;
}

void GrblController::say(const std::string& strText)
{
    m_transmitter.say(strText, m_machine.getNowUs());
}

void GrblController::report()
{
    GrblStatusReport::Status status = m_machine.getStatus();
    status.uBytes = m_receiveBuffer.getFree();
    m_transmitter.sayNow(m_statusReport.format(status), m_machine.getNowUs());
}

bool GrblController::takeAnswer(int64_t s64NowUs, std::string& strText)
{
    return m_transmitter.take(s64NowUs, strText);
}

int64_t GrblController::nextDueUs(int64_t s64NowUs) const
{
    int64_t s64Us = nextEventUs();
    if (const int64_t s64DueUs = m_transmitter.getDueUs(); s64DueUs >= 0) {
        s64Us = (s64Us < 0) ? s64DueUs : std::min(s64Us, s64DueUs);
    }
    if (m_machine.isMoving()) { // the scene follows
        s64Us = std::min(s64Us, s64NowUs + TICK_US);
    }
    return s64Us;
}

void GrblController::addTrigger(int nLine, const std::string& strCommand)
{
    m_triggers.add(nLine, strCommand);
}

bool GrblController::runCommand(const std::string& strCommand, int64_t s64NowUs)
{
    const std::vector<std::string> vecWord = splitWords(strCommand);
    int nCode = 0;
    if (vecWord.empty()) {
        return false;
    }
    advance(s64NowUs);
    if ("hold" == strCommand || "go" == strCommand) { // the button at the machine
        takeRealtime(("hold" == strCommand) ? '!' : '~');
    } else if ("mute" == strCommand || "unmute" == strCommand) {
        m_transmitter.mute("mute" == strCommand);
    } else if ("restart" == strCommand) {
        reset(s64NowUs);
    } else if (2 == vecWord.size() && "alarm-now" == vecWord[0] && parseCount(vecWord[1], nCode)) {
        alarm(nCode, nCode <= GRBL_ALARM_SOFT_LIMIT);
    } else if ("say" == vecWord[0] && strCommand.size() > 4) {
        say(ControllerJournal::unescape(strCommand.substr(4)));
    } else {
        return "status" != vecWord[0] && m_faultPlan.add(vecWord);
    }
    work();
    m_machine.tellBeam();
    return true;
}

std::string GrblController::describe() const
{
    const Point head = getPosition();
    const Beam& beam = getBeam().get();
    char acText[240] = {0};
    snprintf(acText, sizeof(acText),
             "x=%.3f y=%.3f z=%.3f laser=%d power=%.0f pilot=%d moving=%d held=%d locked=%d "
             "homed=%d loading=0 lines=%d state=%s",
             head[0], head[1], head[2], beam.bOn ? 1 : 0, beam.dPower, isPilotOn() ? 1 : 0,
             beam.bMoving ? 1 : 0, m_machine.isHeld() ? 1 : 0,
             (GRBL_STATE_ALARM == m_machine.getState()) ? 1 : 0, m_machine.isHomed() ? 1 : 0,
             m_nLines, m_machine.getStateName());
    return acText;
}
