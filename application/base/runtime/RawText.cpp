// Text for places where neither printf nor memory can be used: a signal handler, a forked child.
#include "RawText.h"

#include <cerrno>

#include <unistd.h>

RawText& RawText::append(const char* pText)
{
    while ('\0' != *pText && m_uLength < sizeof(m_acText) - 1) {
        m_acText[m_uLength++] = *pText++;
    }
    return *this;
}

RawText& RawText::appendDecimal(int nValue)
{
    unsigned long ulValue = static_cast<unsigned long>(nValue);
    if (nValue < 0) {
        append("-");
        ulValue = 0 - ulValue;
    }
    appendDigits(ulValue, 10);
    return *this;
}

RawText& RawText::appendHex(unsigned long ulValue)
{
    if (0 != ulValue) {
        append("0x");
    }
    appendDigits(ulValue, 16);
    return *this;
}

void RawText::appendDigits(unsigned long ulValue, unsigned uBase)
{
    char acDigits[24]; // 64 bits have 20 decimal digits
    size_t uFirst = sizeof(acDigits) - 1;
    acDigits[uFirst] = '\0';
    do {
        acDigits[--uFirst] = "0123456789abcdef"[ulValue % uBase];
        ulValue /= uBase;
    } while (0 != ulValue);
    append(acDigits + uFirst);
}

void RawText::print(int nFd) const
{
    size_t uDone = 0;
    while (uDone < m_uLength) {
        const ssize_t nWritten = write(nFd, m_acText + uDone, m_uLength - uDone);
        if (nWritten > 0) {
            uDone += static_cast<size_t>(nWritten);
        } else if (0 == nWritten || EINTR != errno) {
            return;
        }
    }
}
