// The line DTR of the virtual controller's port: who opens the port raises it.
#pragma once

#include <sys/types.h>

#include "PtyPort.h"

/**
 * Follows the openings and closings of a port by others (inotify(7)).
 *
 * As with a real port the line rises when somebody opens a port that nobody else has open, and
 * falls with the last close, unless the port is set not to hang up then (HUPCL, termios(3)). Not
 * thread-safe.
 */
class DtrLine
{
public:
    /** @param port  borrowed until the end */
    explicit DtrLine(PtyPort& port) : m_port(port) {}
    DtrLine(const DtrLine&) = delete;
    DtrLine& operator=(const DtrLine&) = delete;
    ~DtrLine();

    /**
     * Follow the port from now on, when it has just been plugged in; the line is low.
     * @return false with errno set
     */
    bool watch();

    /** Stop following it. */
    void forget();

    /** For poll; -1 while nothing is followed. */
    int getFd() const
    {
        return m_nFd;
    }

    /** Whether anybody had the port open at the last call of hasRisen(). */
    bool isOpen() const
    {
        return m_nUsers > 0;
    }

    /** @return whether the line has risen since the last call */
    bool hasRisen();

private:
    bool take(const char* pEvents, ssize_t nSize);
    void countAgain();
    void close();
    bool addWatch();

    PtyPort& m_port;
    int m_nFd = -1;
    int m_nWatch = -1;
    int m_nUsers = 0;
    bool m_bHigh = false;
};
