// The line DTR of the virtual controller's port: who opens the port raises it.
#include "DtrLine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/inotify.h>
#include <unistd.h>

DtrLine::~DtrLine()
{
    forget();
}

bool DtrLine::watch()
{
    forget();
    m_nFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_nFd < 0) {
        return false;
    }
    if (!addWatch()) {
        const int nError = errno;
        forget();
        errno = nError;
        return false;
    }
    return true;
}

bool DtrLine::addWatch()
{
    m_nWatch = inotify_add_watch(m_nFd, m_port.getSlavePath().c_str(), IN_OPEN | IN_CLOSE);
    return m_nWatch >= 0;
}

void DtrLine::forget()
{
    if (m_nFd >= 0) {
        ::close(m_nFd);
    }
    m_nFd = -1;
    m_nUsers = 0;
    m_bHigh = false;
}

bool DtrLine::hasRisen()
{
    bool bRisen = false;
    alignas(inotify_event) char acEvents[4096];
    ssize_t nRead = 0;
    while (m_nFd >= 0 && (nRead = read(m_nFd, acEvents, sizeof(acEvents))) > 0) {
        bRisen = take(acEvents, nRead) || bRisen;
    }
    return bRisen;
}

/** @return whether the line has risen */
bool DtrLine::take(const char* pEvents, ssize_t nSize)
{
    bool bRisen = false;
    bool bClosed = false;
    inotify_event event{};
    for (const char* p = pEvents; p < pEvents + nSize; p += sizeof(event) + event.len) {
        memcpy(&event, p, sizeof(event));
        if (0 != (event.mask & IN_OPEN)) {
            ++m_nUsers;
            bRisen = bRisen || !m_bHigh;
            m_bHigh = true;
        } else if (0 != (event.mask & IN_CLOSE)) {
            bClosed = true;
            close();
        }
    }
    if (bClosed) {
        countAgain();
    }
    return bRisen;
}

/** The kernel reports two closings, or openings, in a row as one. */
void DtrLine::countAgain()
{
    inotify_rm_watch(m_nFd, m_nWatch); // the look opens the port itself
    const bool bOpen = m_port.isOpenedByOthers();
    (void)addWatch(); // as it could before
    if (!bOpen) {
        m_nUsers = std::min(m_nUsers, 1);
        close();
    } else if (0 == m_nUsers) {
        m_nUsers = 1;
        m_bHigh = true;
    }
}

void DtrLine::close()
{
    if (m_nUsers > 0) {
        --m_nUsers;
        m_bHigh = m_nUsers > 0 || !m_port.hangsUpOnClose();
    }
}
