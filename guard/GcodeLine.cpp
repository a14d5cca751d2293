// One line of G-code taken apart: which words it has.
#include "GcodeLine.h"

#include <cmath>

static const double MAX_NUMBER = 1e7; // far above every limit; sums of it stay exact enough

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

/** Copies what counts into the line's text. */
LINE_FAULT_E squeeze(const char* pText, size_t uLength, GcodeLine& line)
{
    bool bInBrackets = false;
    bool bInTail = false;
    for (size_t u = 0; u < uLength; ++u) {
        const char c = pText[u];
        if (c < ' ' || c > '}') { // '~' is the only printable one above
            return ('~' == c) ? LINE_REAL_TIME : LINE_BYTE;
        }
        if ('!' == c || '?' == c) {
            return LINE_REAL_TIME;
        }
        if (bInTail) {
            continue;
        }
        if (bInBrackets) {
            bInBrackets = ')' != c;
        } else if ('(' == c) {
            bInBrackets = true;
        } else if (')' == c) {
            return LINE_COMMENT;
        } else if (';' == c) {
            bInTail = true;
        } else if (' ' != c) {
            if (GcodeLine::MAX_TEXT == line.uLength) {
                return LINE_LONG;
            }
            line.acText[line.uLength++] =
                (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
        }
    }
    return bInBrackets ? LINE_COMMENT : LINE_GOOD;
}

/** Takes a decimal number from uPos on. @return false when there is none */
bool takeNumber(const GcodeLine& line, size_t& uPos, double& dValue)
{
    const bool bNegative = '-' == line.acText[uPos];
    if (bNegative || '+' == line.acText[uPos]) {
        ++uPos;
    }
    bool bDigit = false;
    dValue = 0;
    for (; isDigit(line.acText[uPos]); ++uPos) {
        dValue = dValue * 10 + (line.acText[uPos] - '0');
        bDigit = true;
    }
    if ('.' == line.acText[uPos]) {
        double dPlace = 1;
        double dPart = 0;
        for (++uPos; isDigit(line.acText[uPos]); ++uPos) {
            dPart = dPart * 10 + (line.acText[uPos] - '0');
            dPlace *= 10;
            bDigit = true;
        }
        dValue += dPart / dPlace;
    }
    const bool bInRange = dValue <= MAX_NUMBER;
    dValue = bNegative ? -dValue : dValue;
    return bDigit && bInRange;
}

/** @return false for more codes than a line can mean, or no code */
bool addCode(double dValue, std::array<int, GcodeLine::MAX_CODES>& anCode, size_t& uCount)
{
    const double dTenths = dValue * 10;
    const int nTenths = (dTenths >= 0 && dTenths <= 9999) ? static_cast<int>(lround(dTenths)) : -1;
    const double dOff = dTenths - nTenths;
    if (nTenths < 0 || dOff > 1e-6 || dOff < -1e-6 || GcodeLine::MAX_CODES == uCount) {
        return false;
    }
    anCode[uCount++] = nTenths;
    return true;
}

bool contains(const std::array<int, GcodeLine::MAX_CODES>& anCode, size_t uCount, int nTenths)
{
    for (size_t u = 0; u < uCount; ++u) {
        if (anCode[u] == nTenths) {
            return true;
        }
    }
    return false;
}

} // namespace

const char* getLineFaultName(LINE_FAULT_E eFault)
{
    switch (eFault) {
    case LINE_GOOD:
        return "good";
    case LINE_LONG:
        return "too long";
    case LINE_BYTE:
        return "byte outside printable ASCII";
    case LINE_REAL_TIME:
        return "real-time byte";
    case LINE_COMMENT:
        return "parentheses";
    case LINE_WORD:
        return "no word";
    case LINE_TWICE:
        return "two words of a kind";
    case LINE_FORBIDDEN:
        return "word not allowed";
    case LINE_LASER:
        return "laser word";
    case LINE_BOX:
        return "outside the box";
    case LINE_FEED:
        return "feed";
    case LINE_POWER:
        return "power";
    case LINE_ARC:
        return "arc";
    case LINE_POSITION:
        return "position unknown";
    }
    return "";
}

bool GcodeLine::hasG(int nTenths) const
{
    return contains(anG, uG, nTenths);
}

bool GcodeLine::hasM(int nTenths) const
{
    return contains(anM, uM, nTenths);
}

LINE_FAULT_E parseGcode(const char* pText, size_t uLength, GcodeLine& line)
{
    line = {};
    if (const LINE_FAULT_E eFault = squeeze(pText, uLength, line); LINE_GOOD != eFault) {
        return eFault;
    }
    size_t uPos = 0;
    while (uPos < line.uLength) {
        const char cLetter = line.acText[uPos++];
        double dValue = 0;
        if (cLetter < 'A' || cLetter > 'Z' || !takeNumber(line, uPos, dValue)) {
            return LINE_WORD;
        }
        if ('G' == cLetter || 'M' == cLetter) {
            const bool bG = 'G' == cLetter;
            if (!addCode(dValue, bG ? line.anG : line.anM, bG ? line.uG : line.uM)) {
                return LINE_FORBIDDEN;
            }
            continue;
        }
        if (line.has(cLetter)) {
            return LINE_TWICE;
        }
        line.u32Has |= 1U << static_cast<unsigned>(cLetter - 'A');
        line.adValue[static_cast<size_t>(cLetter - 'A')] = dValue;
    }
    return LINE_GOOD;
}
