// Text for places where neither printf nor memory can be used: a signal handler, a forked child.
#pragma once

#include <cstddef>
#include <cstdint>

/**
 * A short text in a buffer of its own; what does not fit is cut.
 *
 * Every operation is async-signal-safe: no allocation, no lock, no locale.
 */
class RawText
{
public:
    RawText() = default;

    RawText& append(const char* pText);

    /** As "%d". */
    RawText& appendDecimal(int nValue);

    /** As "%#lx": "0x" in front, but a bare "0". */
    RawText& appendHex(unsigned long ulValue);

    /** Write the text with write(2); errors end it, quietly. */
    void print(int nFd) const;

    /** The text, zero-terminated. */
    const char* get() const
    {
        return m_acText;
    }

private:
    void appendDigits(unsigned long ulValue, unsigned uBase);

    char m_acText[160] = {0};
    size_t m_uLength = 0;
};
