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

ParsedLine refused(int nError)
{
    ParsedLine line;
    line.eKind = LINE_KIND_REFUSED;
    line.nError = nError;
    return line;
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

/** Makes the line what a motion word says. @return false when it already is something */
bool become(LINE_KIND_E eKind, ParsedLine& line)
{
    const bool bFirst = LINE_KIND_ACCEPTED == line.eKind;
    line.eKind = eKind;
    return bFirst;
}

bool setOnce(bool& bFlag)
{
    return !std::exchange(bFlag, true);
}

/** @return false for a word that is not known or does not go with those before it */
bool applyG(int nCode, ParsedLine& line)
{
    switch (nCode) {
    case 0:
    case 1:
    case 2: // arcs run along their chord
    case 3:
        return become(LINE_KIND_MOVE, line);
    case 5:
        return become(LINE_KIND_POSITION, line);
    case 4:
        return setOnce(line.bDwell);
    case 17:
    case 21:
    case 54:
        return true;
    case 90:
        return !line.bRelative && setOnce(line.bAbsolute);
    case 91:
        return !line.bAbsolute && setOnce(line.bRelative);
    default:
        return false;
    }
}

bool applyM(int nCode, ParsedLine& line)
{
    switch (nCode) {
    case 0:
    case 1:
    case 2:
        return true;
    case 3:
    case 4:
    case 5:
        if (LASER_AS_IT_IS != line.eLaser) {
            return false;
        }
        line.eLaser = (5 == nCode) ? LASER_OFF : LASER_ON;
        return true;
    case 18:
        return become(LINE_KIND_SPOT, line);
    case 21:
        return become(LINE_KIND_LOADER, line);
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
int applyValue(char cLetter, double dValue, ParsedLine& line, bool& bHasP)
{
    const bool bInReach = dValue <= MAX_TRAVEL_MM && dValue >= -MAX_TRAVEL_MM;
    switch (cLetter) {
    case 'X':
        return takeValue(dValue, bInReach, line.bHasX, line.dX);
    case 'Y':
        return takeValue(dValue, bInReach, line.bHasY, line.dY);
    case 'Z':
        return takeValue(dValue, bInReach, line.bHasZ, line.dZ);
    case 'F':
        return takeValue(dValue, dValue > 0 && dValue <= 1e6, line.bHasF, line.dF);
    case 'S':
        return takeValue(dValue, dValue >= 0 && dValue <= 1e6, line.bHasS, line.dS);
    case 'P':
        return takeValue(dValue, dValue >= 0 && dValue <= 1e6, bHasP, line.dP);
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
bool isConsistent(const ParsedLine& line)
{
    const bool bAxis = line.bHasX || line.bHasY || line.bHasZ;
    const bool bModal = line.bAbsolute || line.bRelative || line.bHasF;
    switch (line.eKind) {
    case LINE_KIND_ACCEPTED:
        return !(line.bDwell && bAxis);
    case LINE_KIND_MOVE:
    case LINE_KIND_POSITION:
        return !line.bDwell;
    default: // M18, M21
        return !bAxis && !bModal && !line.bDwell && LASER_AS_IT_IS == line.eLaser &&
               (LINE_KIND_SPOT == line.eKind || !line.bHasS);
    }
}

ParsedLine parseDollar(const std::string& strText)
{
    ParsedLine line;
    if ("$H" == strText) {
        line.eKind = LINE_KIND_HOME;
    } else if ("$X" == strText) {
        line.eKind = LINE_KIND_UNLOCK;
    } else {
        return refused(ERROR_UNKNOWN_DOLLAR);
    }
    return line;
}

ParsedLine parseWords(const std::string& strText)
{
    ParsedLine line;
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
            if (!(('G' == cLetter) ? applyG(nCode, line) : applyM(nCode, line))) {
                return refused(ERROR_NOT_UNDERSTOOD);
            }
        } else if (const int nError = applyValue(cLetter, dValue, line, bHasP); 0 != nError) {
            return refused(nError);
        }
    }
    if (!isConsistent(line)) {
        return refused(ERROR_NOT_UNDERSTOOD);
    }
    const bool bAxis = line.bHasX || line.bHasY || line.bHasZ;
    if (LINE_KIND_ACCEPTED == line.eKind && bAxis) {
        line.eKind = LINE_KIND_MOVE;
    }
    return line;
}

} // namespace

ParsedLine parseLine(const std::string& strLine)
{
    if (strLine.size() > MAX_LINE) {
        return refused(ERROR_TOO_LONG);
    }
    const std::string strText = squeeze(strLine);
    if (!strText.empty() && '$' == strText[0]) {
        return parseDollar(strText);
    }
    if ("~" == strText) {
        ParsedLine line;
        line.eKind = LINE_KIND_RESUME;
        return line;
    }
    return parseWords(strText);
}
