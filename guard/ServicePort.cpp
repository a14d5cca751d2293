// The terminal that the service takes for the controller's port.
#include "ServicePort.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

ServicePort::ServicePort(std::string strLink, std::string strGroup)
    : m_strLink(std::move(strLink)), m_strGroup(std::move(strGroup))
{
}

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

bool ServicePort::handOver(const char* pTerminal) const
{
    if (m_strGroup.empty()) {
        return true;
    }
    const group* const pGroup = getgrnam(m_strGroup.c_str());
    if (nullptr == pGroup) {
        errno = ENOENT; // what getgrnam(3) leaves differs
        return false;
    }
    return 0 == chown(pTerminal, static_cast<uid_t>(-1), pGroup->gr_gid) &&
           0 == chmod(pTerminal, 0660);
}

bool ServicePort::renew()
{
    const int nFd = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (nFd < 0) {
        return false;
    }
    // The kernel sets the other end's attributes; opening that end here would hide the hang-up.
    termios attr{};
    std::array<char, 64> acName{};
    bool bReady = 0 == grantpt(nFd) && 0 == unlockpt(nFd) && 0 == tcgetattr(nFd, &attr) &&
                  0 == ptsname_r(nFd, acName.data(), acName.size());
    if (bReady) {
        attr.c_iflag = 0;
        attr.c_oflag = 0;
        attr.c_lflag = 0;
        attr.c_cflag = CS8 | CREAD | CLOCAL | HUPCL;
        attr.c_cc[VMIN] = 1;
        attr.c_cc[VTIME] = 0;
        cfsetispeed(&attr, B115200);
        cfsetospeed(&attr, B115200);
        const std::string strNew = m_strLink + ".new";
        unlink(strNew.c_str());
        bReady = 0 == tcsetattr(nFd, TCSANOW, &attr) && handOver(acName.data()) &&
                 0 == symlink(acName.data(), strNew.c_str()) &&
                 0 == rename(strNew.c_str(), m_strLink.c_str());
    }
    if (!bReady) {
        const int nError = errno;
        ::close(nFd);
        errno = nError;
        return false;
    }
    close(); // the former one, now that nobody finds it any more
    m_nFd = nFd;
    return true;
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
