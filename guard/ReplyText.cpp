// A piece of a controller's line, and what can be taken out of it.
#include "ReplyText.h"

#include <cstring>

static const size_t MAX_DIGITS = 6; // so that any code fits an int

bool ReplyText::is(const char* pText) const
{
    return strlen(pText) == m_uLength && startsWith(pText);
}

bool ReplyText::startsWith(const char* pPrefix) const
{
    const size_t uLength = strlen(pPrefix);
    return uLength <= m_uLength && 0 == memcmp(m_pText, pPrefix, uLength);
}

bool ReplyText::isWithin(char cFirst, char cLast) const
{
    return m_uLength >= 2 && cFirst == m_pText[0] && cLast == m_pText[m_uLength - 1];
}

ReplyText ReplyText::inner() const
{
    return {m_pText + 1, m_uLength - 2};
}

ReplyText ReplyText::behind(const char* pPrefix) const
{
    const size_t uLength = strlen(pPrefix);
    return {m_pText + uLength, m_uLength - uLength};
}

ReplyText ReplyText::getField(size_t uIndex, char cSeparator) const
{
    size_t uStart = 0;
    for (size_t u = 0; u <= m_uLength; ++u) {
        if (u < m_uLength && cSeparator != m_pText[u]) {
            continue;
        }
        if (0 == uIndex--) {
            return {m_pText + uStart, u - uStart};
        }
        uStart = u + 1;
    }
    return {m_pText, 0};
}

bool ReplyText::takeCode(const char* pPrefix, int& nCode) const
{
    if (!startsWith(pPrefix)) {
        return false;
    }
    const ReplyText digits = behind(pPrefix);
    if (digits.isEmpty() || digits.m_uLength > MAX_DIGITS) {
        return false;
    }
    int nValue = 0;
    for (size_t u = 0; u < digits.m_uLength; ++u) {
        const char c = digits.m_pText[u];
        if (c < '0' || c > '9') {
            return false;
        }
        nValue = nValue * 10 + (c - '0');
    }
    nCode = nValue;
    return true;
}

bool ReplyText::takeNumber(double& dValue) const
{
    GcodeLine line;
    std::array<char, 32> acWord{};
    if (isEmpty() || m_uLength + 1 > acWord.size()) {
        return false;
    }
    acWord[0] = 'X';
    memcpy(acWord.data() + 1, m_pText, m_uLength);
    // One word of a line is a number; a letter within would begin a second one.
    if (LINE_GOOD != parseGcode(acWord.data(), m_uLength + 1, line) ||
        line.uLength != m_uLength + 1 || (1U << ('X' - 'A')) != line.u32Has ||
        line.uG + line.uM > 0) {
        return false;
    }
    dValue = line.get('X');
    return true;
}

bool ReplyText::takePoint(MachinePoint& point) const
{
    MachinePoint taken{};
    for (size_t u = 0; u < 3; ++u) {
        if (!getField(u, ',').takeNumber(taken[u])) {
            return false;
        }
    }
    point = taken;
    return true;
}
