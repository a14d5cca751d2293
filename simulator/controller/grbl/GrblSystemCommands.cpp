// The "$" lines of a controller that speaks Grbl 1.1.
#include "GrblSystemCommands.h"

#include <cmath>
#include <cstdlib>
#include <vector>

#include "GrblErrors.h"
#include "GrblText.h"

namespace {

bool startsWith(const std::string& strText, const char* pStart)
{
    return 0 == strText.rfind(pStart, 0);
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

GrblSystemCommands::GrblSystemCommands(GrblSettings& settings, GrblInterpreter& interpreter,
                                       GrblMachine& machine, GrblStatusReport& report,
                                       GrblTransmitter& transmitter)
    : m_settings(settings), m_interpreter(interpreter), m_machine(machine), m_report(report),
      m_transmitter(transmitter)
{
}

void GrblSystemCommands::start(std::deque<GrblAction>& deqAction)
{
    for (const auto& [nNumber, strLine] : m_mapStartup) {
        if (strLine.empty()) {
            continue;
        }
        std::vector<GrblAction> vecAction;
        std::string strText = ">";
        strText += strLine;
        strText += ":";
        strText += formatResult(m_interpreter.interpret(strLine, vecAction));
        deqAction.insert(deqAction.end(), vecAction.begin(), vecAction.end());
        deqAction.push_back({GRBL_SAY, {}, 0, false, strText});
    }
}

int GrblSystemCommands::carryOut(const std::string& strLine, std::deque<GrblAction>& deqAction)
{
    const GRBL_STATE_E eState = m_machine.getState();
    if (startsWith(strLine, "$J=")) {
        return jog(strLine.substr(3), deqAction);
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
        return toggleCheck();
    }
    if ("$X" == strLine) {
        if (GRBL_STATE_ALARM == eState) {
            say("[MSG:Caution: Unlocked]\r\n");
            m_machine.unlock();
        }
        return 0;
    }
    const bool bAtRest = GRBL_STATE_IDLE == eState || GRBL_STATE_ALARM == eState;
    return bAtRest ? carryOutAtRest(strLine, deqAction) : GRBL_ERROR_NOT_IDLE;
}

int GrblSystemCommands::carryOutAtRest(const std::string& strLine,
                                       std::deque<GrblAction>& deqAction)
{
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
            return GRBL_ERROR_HOMING_OFF;
        }
        deqAction.push_back({GRBL_HOME});
    } else if ("$SLP" == strLine) {
        say("[MSG:Sleeping]\r\n");
        m_machine.sleep();
    } else if ("$RST=$" == strLine || "$RST=#" == strLine || "$RST=*" == strLine) {
        restore(strLine.back());
    } else if (startsWith(strLine, "$N")) {
        return storeStartupLine(strLine);
    } else {
        return storeSetting(strLine);
    }
    return 0;
}

int GrblSystemCommands::jog(const std::string& strLine, std::deque<GrblAction>& deqAction)
{
    if (GRBL_STATE_IDLE != m_machine.getState() && GRBL_STATE_JOG != m_machine.getState()) {
        return GRBL_ERROR_NOT_IDLE;
    }
    if (strLine.empty()) {
        return GRBL_ERROR_JOG;
    }
    std::vector<GrblAction> vecAction;
    const Point former = m_machine.getDestination();
    if (const int nError = m_interpreter.interpretJog(strLine, vecAction); 0 != nError) {
        return nError;
    }
    for (GrblAction& action : vecAction) {
        if (m_machine.isOutside(action.block.target)) {
            m_interpreter.setPosition(former);
            return GRBL_ERROR_JOG_TRAVEL;
        }
        action.bOn = true; // a jog
        action.block.eSpindle = SPINDLE_OFF;
        action.block.dPower = 0;
        deqAction.push_back(action);
    }
    return 0;
}

int GrblSystemCommands::toggleCheck()
{
    if (GRBL_STATE_CHECK == m_machine.getState()) {
        say("[MSG:Disabled]\r\n");
        say(formatResult(GRBL_ERROR_NONE));
        return RESET;
    }
    if (GRBL_STATE_IDLE != m_machine.getState()) {
        return GRBL_ERROR_NOT_IDLE;
    }
    say("[MSG:Enabled]\r\n");
    m_machine.check();
    return 0;
}

/** @param cWhat  '$' settings, '#' offsets, '*' both */
void GrblSystemCommands::restore(char cWhat)
{
    if ('#' != cWhat) {
        m_settings.restore();
        m_machine.applySettings();
    }
    if ('$' != cWhat) {
        m_interpreter.forgetOffsets();
        m_report.tellOffset();
    }
    say("[MSG:Restoring defaults]\r\n");
}

int GrblSystemCommands::storeSetting(const std::string& strLine)
{
    const size_t uSign = strLine.find('=');
    double dNumber = 0;
    if (!parseNumber(strLine.substr(1, uSign - 1), dNumber)) {
        return (strLine[1] >= '0' && strLine[1] <= '9') ? GRBL_ERROR_NUMBER : GRBL_ERROR_DOLLAR;
    }
    if (std::string::npos == uSign) {
        return GRBL_ERROR_DOLLAR;
    }
    double dValue = 0;
    if (!parseNumber(strLine.substr(uSign + 1), dValue)) {
        return GRBL_ERROR_NUMBER;
    }
    if (dNumber < 0 || dNumber > 255 || std::floor(dNumber) != dNumber) {
        return GRBL_ERROR_DOLLAR;
    }
    const int nError = m_settings.set(static_cast<int>(dNumber), dValue);
    m_machine.applySettings();
    return nError;
}

int GrblSystemCommands::storeStartupLine(const std::string& strLine)
{
    const bool bForm = strLine.size() >= 4 && '=' == strLine[3];
    const int nNumber = (strLine.size() > 2) ? strLine[2] - '0' : -1;
    if (!bForm || 0 == m_mapStartup.count(nNumber)) {
        return GRBL_ERROR_DOLLAR;
    }
    if (GRBL_STATE_IDLE != m_machine.getState()) {
        return GRBL_ERROR_NOT_IDLE;
    }
    GrblInterpreter trial(m_settings);
    std::vector<GrblAction> vecIgnored;
    const int nError = trial.interpret(strLine.substr(4), vecIgnored);
    if (0 == nError) {
        m_mapStartup[nNumber] = strLine.substr(4);
    }
    return nError;
}

void GrblSystemCommands::say(const std::string& strText)
{
    m_transmitter.say(strText, m_machine.getNowUs());
}
