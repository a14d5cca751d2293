// Carries the journal to standard output, however slow that is.
#pragma once

#include <sys/types.h>

/**
 * A process of its own copies what comes through its pipe to a descriptor. So whoever writes never
 * waits: not for a pipe that others fill, a terminal that is stopped, or a file on a busy disk.
 * The process ends behind the last byte, when nobody can write any more, and not by the signals
 * that end the guard. What it cannot write is lost. One thread.
 */
class JournalRelay
{
public:
    /**
     * Starts the process; getFd() tells whether it could be.
     * @param nOutput  where the bytes go
     * @param nOther  a descriptor that the process must not keep open; -1: none
     */
    JournalRelay(int nOutput, int nOther);
    JournalRelay(const JournalRelay&) = delete;
    JournalRelay& operator=(const JournalRelay&) = delete;

    /** Waits 0.05 s at most until what was written has gone out. */
    ~JournalRelay();

    /** The end to write to, which does not block; -1 with errno when the process was not started.
     */
    int getFd() const
    {
        return m_nFd;
    }

private:
    [[noreturn]] static void copy(int nInput, int nOutput);

    int m_nFd = -1;
    pid_t m_nProcess = -1;
};
