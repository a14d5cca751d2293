// The job that the operator has opened: its lines, and which comes next.
#include "JobText.h"

#include <cstring>

void JobText::open(const char* pText, size_t uSize)
{
    *this = {};
    m_pText = pText;
    m_uSize = uSize;
}

void JobText::close()
{
    const size_t uLine = m_uLine; // whoever asks why it ended asks where, too
    *this = {};
    m_uLine = uLine;
}

bool JobText::isNext(const char* pLine, size_t uLength) const
{
    return !isDone() && findEnd() - m_uPlace == uLength &&
           0 == memcmp(m_pText + m_uPlace, pLine, uLength);
}

void JobText::advance()
{
    m_uPlace = findEnd() + 1;
    ++m_uLine;
}

size_t JobText::findEnd() const
{
    const void* const pEnd = memchr(m_pText + m_uPlace, '\n', m_uSize - m_uPlace);
    return (nullptr == pEnd) ? m_uSize
                             : static_cast<size_t>(static_cast<const char*>(pEnd) - m_pText);
}
