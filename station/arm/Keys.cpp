// The keys of the terminal, one by one.
#include "Keys.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

Keys::Keys()
{
    const bool bInFront = ::tcgetpgrp(STDIN_FILENO) == ::getpgrp(); // -1 when it is no terminal
    if (!bInFront || 0 != ::tcgetattr(STDIN_FILENO, &m_before)) {
        return;
    }
    termios quiet = m_before;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    quiet.c_cc[VMIN] = 1;
    quiet.c_cc[VTIME] = 0;
    quiet.c_cc[VSUSP] = _POSIX_VDISABLE; // who is stopped renews no lease
    if (0 == ::tcsetattr(STDIN_FILENO, TCSANOW, &quiet)) {
        m_nFd = STDIN_FILENO;
    }
}

Keys::~Keys()
{
    if (m_nFd >= 0) {
        (void)::tcsetattr(m_nFd, TCSANOW, &m_before); // a terminal that is gone needs none
    }
}

int Keys::take()
{
    pollfd entry{m_nFd, POLLIN, 0};
    if (m_nFd < 0 || ::poll(&entry, 1, 0) <= 0 || 0 == entry.revents) {
        return NONE;
    }
    char c = 0;
    const ssize_t nRead = ::read(m_nFd, &c, 1);
    if (1 == nRead) {
        return static_cast<unsigned char>(c);
    }
    return nRead < 0 && (EINTR == errno || EAGAIN == errno) ? NONE : LOST;
}
