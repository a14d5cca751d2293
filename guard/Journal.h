// What has happened, line by line on standard output.
#pragma once

#include <cstdint>
#include <string>

/**
 * A line is the wall time, the monotonic time in seconds and the text:
 *
 *     2026-03-01T12:00:00.250Z 5123.017841 trip: alarm 1
 *
 * A line that the output does not take at once and whole is dropped, and how many were is told with
 * the next one. One thread.
 */
class Journal
{
public:
    /** @param nFd  a pipe's end that does not block; the lines are short enough to go in whole */
    explicit Journal(int nFd) : m_nFd(nFd) {}

    /** Allocates nothing. @param pText  one line, without its end; cut at 400 bytes */
    void write(const char* pText);
    void write(const std::string& strText)
    {
        write(strText.c_str());
    }

private:
    int m_nFd;
    unsigned m_uDropped = 0;
};
