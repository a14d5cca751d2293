// What a controller that speaks Grbl 1.1 has received and not yet worked off, and the line in it.
#include "GrblReceiveBuffer.h"

#include <utility>

bool GrblReceiveBuffer::put(char c)
{
    if (0 == getFree()) {
        return false;
    }
    m_strReceived += c;
    return true;
}

bool GrblReceiveBuffer::takeLine(Line& line)
{
    size_t uUsed = 0;
    bool bWhole = false;
    while (uUsed < m_strReceived.size() && !bWhole) {
        const char c = m_strReceived[uUsed++];
        bWhole = '\n' == c || '\r' == c;
        if (!bWhole) {
            addToLine(c);
        }
    }
    m_strReceived.erase(0, uUsed);
    if (bWhole) {
        m_cComment = '\0';
        line.strText = std::exchange(m_strLine, {});
        line.bTooLong = std::exchange(m_uLine, 0) >= LINE;
    }
    return bWhole;
}

void GrblReceiveBuffer::addToLine(char c)
{
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

void GrblReceiveBuffer::clear()
{
    m_strReceived.clear();
    m_strLine.clear();
    m_uLine = 0;
    m_cComment = '\0';
}
