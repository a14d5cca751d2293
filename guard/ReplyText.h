// A piece of a controller's line, and what can be taken out of it.
#pragma once

#include <cstddef>

#include "GcodeCheck.h"

/** Borrows the text, which has to outlive it. Nothing allocates. */
class ReplyText
{
public:
    ReplyText(const char* pText, size_t uLength) : m_pText(pText), m_uLength(uLength) {}

    bool isEmpty() const
    {
        return 0 == m_uLength;
    }
    bool is(const char* pText) const;
    bool startsWith(const char* pPrefix) const;
    bool isWithin(char cFirst, char cLast) const;

    /** Without the first and the last character. */
    ReplyText inner() const;

    /** The rest; the caller has looked at startsWith(). */
    ReplyText behind(const char* pPrefix) const;

    /** A field between separators; empty when there are not so many. @param uIndex  from 0 */
    ReplyText getField(size_t uIndex, char cSeparator) const;

    /** @return true when the text is the prefix and one to six digits, and nothing else */
    bool takeCode(const char* pPrefix, int& nCode) const;

    /** @return true when the text is a decimal number, and nothing else */
    bool takeNumber(double& dValue) const;

    /** Three numbers between commas; further ones, of further axes, do not matter. */
    bool takePoint(MachinePoint& point) const;

private:
    const char* m_pText;
    size_t m_uLength;
};
