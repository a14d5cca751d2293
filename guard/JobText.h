// The job that the operator has opened: its lines, and which comes next.
#pragma once

#include <cstddef>

/**
 * Lines end with "\n"; a last line without one counts as well. Borrows the text until close() or
 * the next open(). Nothing allocates.
 */
class JobText
{
public:
    void open(const char* pText, size_t uSize);
    void close();

    /** Whether all lines are through. */
    bool isDone() const
    {
        return m_uPlace >= m_uSize;
    }

    /** Whether the next line is this one, byte for byte without its line end. */
    bool isNext(const char* pLine, size_t uLength) const;

    /** The next line is through; only when not isDone(). */
    void advance();

    /** Lines that are through, of the job that was open last. */
    size_t getLine() const
    {
        return m_uLine;
    }

private:
    size_t findEnd() const;

    const char* m_pText = nullptr;
    size_t m_uSize = 0;
    size_t m_uPlace = 0;
    size_t m_uLine = 0;
};
