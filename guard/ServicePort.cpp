// The terminal that the service takes for the controller's port.
#include "ServicePort.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "RawLine.h"

ServicePort::ServicePort(std::string strLink) : m_strLink(std::move(strLink)) {}

ServicePort::~ServicePort()
{
    if (m_nFd >= 0) {
        unlink(m_strLink.c_str());
    }
    close();
}

void ServicePort::close()
{
    if (m_nFd >= 0) {
        ::close(std::exchange(m_nFd, -1));
    }
}

GROUP_E ServicePort::setGroup(const std::string& strGroup, std::string& strError)
{
    return findGroup(strGroup, m_uGroup, strError);
}

bool ServicePort::renew()
{
    const int nFd = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    const bool bReady = nFd >= 0 && prepare(nFd);
    const int nError = errno;
    if (!bReady) {
        if (nFd >= 0) {
            ::close(nFd);
        }
        unlink(m_strLink.c_str());
    }
    close(); // the former one, now that nobody finds it any more
    m_nFd = bReady ? nFd : -1;
    errno = nError;
    return bReady;
}

/** Sets the terminal up, and then its link. */
bool ServicePort::prepare(int nFd) const
{
    // The kernel sets the other end's attributes; opening that end here would hide the hang-up.
    std::array<char, 64> acName{};
    if (0 != grantpt(nFd) || 0 != unlockpt(nFd) ||
        0 != ptsname_r(nFd, acName.data(), acName.size()) || !setRawLine(nFd)) {
        return false;
    }
    const bool bGroup = static_cast<gid_t>(-1) != m_uGroup;
    if (bGroup && (0 != chown(acName.data(), static_cast<uid_t>(-1), m_uGroup) ||
                   0 != chmod(acName.data(), 0660))) {
        return false;
    }
    const std::string strNew = m_strLink + ".new";
    unlink(strNew.c_str());
    return 0 == symlink(acName.data(), strNew.c_str()) &&
           0 == rename(strNew.c_str(), m_strLink.c_str());
}

bool ServicePort::write(const char* pBytes, size_t uLength) const
{
    return m_nFd >= 0 && static_cast<ssize_t>(uLength) == ::write(m_nFd, pBytes, uLength);
}

int ServicePort::read(char* pBuffer, size_t uSize) const
{
    const ssize_t nRead = ::read(m_nFd, pBuffer, uSize);
    if (nRead > 0) {
        return static_cast<int>(nRead);
    }
    return (nRead < 0 && (EAGAIN == errno || EINTR == errno)) ? 0 : -1; // EIO: closed
}
