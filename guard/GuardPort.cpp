// The controller's serial port, held for the guard alone.
#include "GuardPort.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "RawLine.h"

static const char BEAM_OFF = 0x18;

GuardPort::GuardPort(std::string strPath) : m_strPath(std::move(strPath)) {}

GuardPort::~GuardPort()
{
    close();
}

PORT_E GuardPort::open()
{
    const int nFd = ::open(m_strPath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (nFd < 0) {
        return fail(nFd, errno); // EBUSY: TIOCEXCL
    }
    if (0 != flock(nFd, LOCK_EX | LOCK_NB)) {
        return fail(nFd, (EWOULDBLOCK == errno) ? EBUSY : errno);
    }
    if (!setRawLine(nFd)) {
        return fail(nFd, errno);
    }
    tcflush(nFd, TCIFLUSH);     // what was said to a former guard is no answer to this one
    (void)ioctl(nFd, TIOCEXCL); // keeps others out that are not root; flock keeps guards out
    m_nFd = nFd;
    m_nError = 0;
    m_uPending = 0;
    m_bBroken = false;
    return PORT_OPEN;
}

PORT_E GuardPort::fail(int nFd, int nError)
{
    if (nFd >= 0) {
        ::close(nFd);
    }
    m_nError = nError;
    return (EBUSY == nError) ? PORT_TAKEN : PORT_MISSING;
}

void GuardPort::close()
{
    if (m_nFd >= 0) {
        // Both last longer than this descriptor: the parent has one of the same opening, and a
        // pseudo terminal keeps TIOCEXCL as long as its other end is open.
        (void)ioctl(m_nFd, TIOCNXCL);
        (void)flock(m_nFd, LOCK_UN);
        ::close(std::exchange(m_nFd, -1));
    }
    m_uPending = 0;
    m_bBroken = false;
}

void GuardPort::flush()
{
    while (m_uPending > 0) {
        const ssize_t nWritten = ::write(m_nFd, m_acPending.data(), m_uPending);
        if (nWritten <= 0) {
            m_bBroken = nWritten < 0 && EAGAIN != errno && EINTR != errno;
            return;
        }
        m_uPending -= static_cast<size_t>(nWritten);
        memmove(m_acPending.data(), m_acPending.data() + nWritten, m_uPending);
    }
}

bool GuardPort::write(const char* pBytes, size_t uLength)
{
    if (m_nFd < 0 || m_uPending + uLength > m_acPending.size()) {
        return false;
    }
    memcpy(m_acPending.data() + m_uPending, pBytes, uLength);
    m_uPending += uLength;
    flush();
    return true;
}

void GuardPort::cut(const char* pBytes, size_t uLength)
{
    m_uPending = 0;
    if (m_nFd >= 0) {
        tcflush(m_nFd, TCOFLUSH);
        (void)write(pBytes, uLength);
    }
}

int GuardPort::read(char* pBuffer, size_t uSize) const
{
    const ssize_t nRead = ::read(m_nFd, pBuffer, uSize);
    if (nRead > 0) {
        return static_cast<int>(nRead);
    }
    return (nRead < 0 && (EAGAIN == errno || EINTR == errno)) ? 0 : -1;
}

bool GuardPort::sendOff(const std::string& strPath)
{
    int nFd = -1;
    do {
        nFd = ::open(strPath.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    } while (nFd < 0 && EINTR == errno);
    if (nFd < 0) {
        return false;
    }
    const bool bSent = sendOff(nFd);
    const int nError = errno;
    ::close(nFd);
    errno = nError;
    return bSent;
}

bool GuardPort::sendOff(int nFd)
{
    (void)setRawLine(nFd);    // as good as it goes
    (void)tcflow(nFd, TCOON); // somebody may have stopped it
    tcflush(nFd, TCOFLUSH);
    ssize_t nWritten = 0;
    do {
        nWritten = ::write(nFd, &BEAM_OFF, 1);
    } while (nWritten < 0 && EINTR == errno);
    const bool bSent = 1 == nWritten;
    const int nError = errno;
    // A closed port drops what it has not sent; tcdrain(3) would wait for a stuck one for ever.
    int nLeft = bSent ? 1 : 0;
    for (int n = 0; n < 200 && nLeft > 0 && 0 == ioctl(nFd, TIOCOUTQ, &nLeft) && nLeft > 0; ++n) {
        poll(nullptr, 0, 1);
    }
    errno = nError;
    return bSent;
}
