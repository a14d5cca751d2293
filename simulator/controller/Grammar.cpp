// The virtual controller's language: what the lines that it receives mean.
#include "Grammar.h"

#include <cctype>
#include <cmath>
#include <utility>

#include "DecimalNumber.h"

namespace {

bool isBlank(char c)
{
    return ' ' == c || '\t' == c || '\r' == c;
}

Command refused(int nError)
{
    Command command;
    command.eKind = COMMAND_REFUSED;
    command.nError = nError;
    return command;
}

/** The line without blanks and comments, in upper case. */
std::string squeeze(const std::string& strLine)
{
    std::string strResult;
    bool bInComment = false;
    for (const char c : strLine) {
        if (bInComment) {
            bInComment = (')' != c);
        } else if (';' == c) {
            break;
        } else if ('(' == c) {
            bInComment = true;
        } else if (!isBlank(c)) {
            strResult += static_cast<char>(toupper(static_cast<unsigned char>(c)));
        }
    }
    return strResult;
}

/** Makes the line what a motion word says. @return false when it is something already */
bool become(COMMAND_E eKind, Command& command)
{
    const bool bFirst = COMMAND_ACCEPTED == command.eKind;
    command.eKind = eKind;
    return bFirst;
}

bool setOnce(bool& bFlag)
{
    return !std::exchange(bFlag, true);
}

/** @return false for a word that is not known or does not go with those before it */
bool applyG(int nCode, Command& command)
{
    switch (nCode) {
    case 0:
    case 1:
    case 2: // arcs run along their chord
    case 3:
        return become(COMMAND_MOVE, command);
    case 5:
        return become(COMMAND_POSITION, command);
    case 4:
        return setOnce(command.bDwell);
    case 17:
    case 21:
    case 54:
        return true;
    case 90:
        return !command.bRelative && setOnce(command.bAbsolute);
    case 91:
        return !command.bAbsolute && setOnce(command.bRelative);
    default:
        return false;
    }
}

bool applyM(int nCode, Command& command)
{
    switch (nCode) {
    case 0:
    case 1:
    case 2:
        return true;
    case 3:
    case 4:
    case 5:
        if (LASER_AS_IT_IS != command.eLaser) {
            return false;
        }
        command.eLaser = (5 == nCode) ? LASER_OFF : LASER_ON;
        return true;
    case 18:
        return become(COMMAND_SPOT, command);
    case 21:
        return become(COMMAND_LOADER, command);
    default:
        return false;
    }
}

/** Takes a value that may stand once. @return 0 or the error code */
int takeValue(double dGiven, bool bInRange, bool& bHas, double& dValue)
{
    if (!setOnce(bHas)) {
        return ERROR_NOT_UNDERSTOOD;
    }
    dValue = dGiven;
    return bInRange ? 0 : ERROR_OUT_OF_RANGE;
}

/** Axis, feed and power words. @return 0 or the error code */
int applyValue(char cLetter, double dValue, Command& command, bool& bHasP)
{
    const bool bInReach = dValue <= MAX_TRAVEL_MM && dValue >= -MAX_TRAVEL_MM;
    switch (cLetter) {
    case 'X':
        return takeValue(dValue, bInReach, command.bHasX, command.dX);
    case 'Y':
        return takeValue(dValue, bInReach, command.bHasY, command.dY);
    case 'Z':
        return takeValue(dValue, bInReach, command.bHasZ, command.dZ);
    case 'F':
        return takeValue(dValue, dValue > 0 && dValue <= 1e6, command.bHasF, command.dF);
    case 'S':
        return takeValue(dValue, dValue >= 0 && dValue <= 1e6, command.bHasS, command.dS);
    case 'P':
        return takeValue(dValue, dValue >= 0 && dValue <= 1e6, bHasP, command.dP);
    case 'N': // line number
    case 'I': // arc centre
    case 'J':
    case 'R':
        return 0;
    default:
        return ERROR_NOT_UNDERSTOOD;
    }
}

/** Whether the words of a line can all be carried out. */
bool isConsistent(const Command& command)
{
    const bool bAxis = command.bHasX || command.bHasY || command.bHasZ;
    const bool bModal = command.bAbsolute || command.bRelative || command.bHasF;
    switch (command.eKind) {
    case COMMAND_ACCEPTED:
        return !(command.bDwell && bAxis);
    case COMMAND_MOVE:
    case COMMAND_POSITION:
        return !command.bDwell;
    default: // M18, M21
        return !bAxis && !bModal && !command.bDwell && LASER_AS_IT_IS == command.eLaser &&
               (COMMAND_SPOT == command.eKind || !command.bHasS);
    }
}

Command parseDollar(const std::string& strText)
{
    Command command;
    if ("$H" == strText) {
        command.eKind = COMMAND_HOME;
    } else if ("$X" == strText) {
        command.eKind = COMMAND_UNLOCK;
    } else {
        return refused(ERROR_UNKNOWN_DOLLAR);
    }
    return command;
}

Command parseWords(const std::string& strText)
{
    Command command;
    bool bHasP = false;
    size_t uPos = 0;
    while (uPos < strText.size()) {
        const char cLetter = strText[uPos++];
        if (cLetter < 'A' || cLetter > 'Z') {
            return refused(ERROR_NOT_UNDERSTOOD);
        }
        double dValue = 0;
        if (!takeNumber(strText, uPos, dValue)) {
            return refused(ERROR_BAD_NUMBER);
        }
        if ('G' == cLetter || 'M' == cLetter) {
            const bool bWhole = dValue >= 0 && dValue <= 999 && floor(dValue) == dValue;
            const int nCode = bWhole ? static_cast<int>(dValue) : -1;
            if (!(('G' == cLetter) ? applyG(nCode, command) : applyM(nCode, command))) {
                return refused(ERROR_NOT_UNDERSTOOD);
            }
        } else if (const int nError = applyValue(cLetter, dValue, command, bHasP); 0 != nError) {
            return refused(nError);
        }
    }
    if (!isConsistent(command)) {
        return refused(ERROR_NOT_UNDERSTOOD);
    }
    const bool bAxis = command.bHasX || command.bHasY || command.bHasZ;
    if (COMMAND_ACCEPTED == command.eKind && bAxis) {
        command.eKind = COMMAND_MOVE;
    }
    return command;
}

} // namespace

Command parseLine(const std::string& strLine)
{
    if (strLine.size() > MAX_LINE) {
        return refused(ERROR_TOO_LONG);
    }
    const std::string strText = squeeze(strLine);
    if (!strText.empty() && '$' == strText[0]) {
        return parseDollar(strText);
    }
    if ("~" == strText) {
        Command command;
        command.eKind = COMMAND_RESUME;
        return command;
    }
    return parseWords(strText);
}
