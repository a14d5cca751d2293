// Bytes that come in pieces, put together to lines.
#pragma once

#include <array>
#include <cstddef>

/** Keeps at most MAX_LINE bytes of a line; nothing allocates. */
class LineBuffer
{
public:
    static const size_t MAX_LINE = 255;

    /** Take a byte that is no line end. */
    void add(char c)
    {
        if (MAX_LINE == m_uLength) {
            m_bTooLong = true;
        } else {
            m_acLine[m_uLength++] = c;
        }
    }
    void clear()
    {
        m_uLength = 0;
        m_bTooLong = false;
    }

    bool isEmpty() const
    {
        return 0 == m_uLength;
    }
    bool isTooLong() const
    {
        return m_bTooLong;
    }
    const char* getText() const
    {
        return m_acLine.data();
    }
    size_t getLength() const
    {
        return m_uLength;
    }

private:
    std::array<char, MAX_LINE> m_acLine{};
    size_t m_uLength = 0;
    bool m_bTooLong = false;
};
