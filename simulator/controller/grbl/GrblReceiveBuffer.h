// What a controller that speaks Grbl 1.1 has received and not yet worked off, and the line in it.
#pragma once

#include <cstddef>
#include <string>

/** Real-time bytes never get here. Not thread-safe. */
class GrblReceiveBuffer
{
public:
    static constexpr size_t BYTES = 128;
    static constexpr size_t LINE = 80; // significant characters; one more is too many

    /** A line without blanks and comments, in upper case. */
    struct Line
    {
        std::string strText; // at most LINE characters
        bool bTooLong = false;
    };

    /** @return false when the buffer is full: the byte is lost */
    bool put(char c);

    /**
     * Move bytes from the buffer to the line, which makes room for others.
     * @return true when the line is whole; what follows stays in the buffer
     */
    bool takeLine(Line& line);

    /** Forget the bytes and the line begun. */
    void clear();

    /** What is there of the next lines, without blanks and comments of the first. */
    std::string getInput() const
    {
        return m_strLine + m_strReceived;
    }

    /** Bytes that there is room for. */
    size_t getFree() const
    {
        return BYTES - m_strReceived.size();
    }

private:
    void addToLine(char c);

    std::string m_strReceived; // at most BYTES
    std::string m_strLine;     // significant characters so far
    size_t m_uLine = 0;        // how many there were, more than m_strLine keeps
    char m_cComment = '\0';    // '(' or ';' within one
};
