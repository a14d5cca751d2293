// The "$" lines of a controller that speaks Grbl 1.1.
#pragma once

#include <deque>
#include <map>
#include <string>

#include "GrblAction.h"
#include "GrblInterpreter.h"
#include "GrblMachine.h"
#include "GrblSettings.h"
#include "GrblStatusReport.h"
#include "GrblTransmitter.h"

/** Keeps the startup lines besides. Not thread-safe. */
class GrblSystemCommands
{
public:
    static constexpr int RESET = -1; // has been answered: a soft reset is to follow

    /** All are borrowed as long as the object lives. */
    GrblSystemCommands(GrblSettings& settings, GrblInterpreter& interpreter, GrblMachine& machine,
                       GrblStatusReport& report, GrblTransmitter& transmitter);

    /**
     * @param strLine    begins with "$"; in upper case, without blanks and comments
     * @param deqAction  what a jog and "$H" make the machine do is appended
     * @return 0, the code of "error:N" or RESET
     */
    int carryOut(const std::string& strLine, std::deque<GrblAction>& deqAction);

    /**
     * Carry out the startup lines, and send them with their results.
     * @param deqAction  appended to
     */
    void start(std::deque<GrblAction>& deqAction);

private:
    int carryOutAtRest(const std::string& strLine, std::deque<GrblAction>& deqAction);
    int jog(const std::string& strLine, std::deque<GrblAction>& deqAction);
    int toggleCheck();
    void restore(char cWhat);
    int storeSetting(const std::string& strLine);
    int storeStartupLine(const std::string& strLine);
    void say(const std::string& strText);

    GrblSettings& m_settings;
    GrblInterpreter& m_interpreter;
    GrblMachine& m_machine;
    GrblStatusReport& m_report;
    GrblTransmitter& m_transmitter;
    std::map<int, std::string> m_mapStartup{{0, ""}, {1, ""}};
};
