// The virtual controller's serial port: a pseudo terminal that can be plugged in and pulled out.
#include "PtyPort.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

PtyPort::PtyPort(std::string strNode) : m_strNode(std::move(strNode)) {}

PtyPort::~PtyPort()
{
    unplug();
}

bool PtyPort::plug()
{
    if (isPlugged()) {
        return true;
    }
    const int nMaster = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (nMaster < 0) {
        return false;
    }
    const bool bReady = 0 == grantpt(nMaster) && 0 == unlockpt(nMaster);
    const char* const pSlave = bReady ? ptsname(nMaster) : nullptr;
    const int nSlave =
        (nullptr == pSlave) ? -1 : open(pSlave, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (nSlave < 0) {
        close(nMaster);
        return false;
    }
    termios attr{};
    tcgetattr(nSlave, &attr);
    cfmakeraw(&attr);
    attr.c_cflag |= HUPCL; // as a serial port begins, unlike a pseudo terminal
    cfsetispeed(&attr, B9600);
    cfsetospeed(&attr, B9600);
    tcsetattr(nSlave, TCSANOW, &attr);

    // Made under another name first: the node is never seen half done.
    const std::string strNew = m_strNode + ".new";
    unlink(strNew.c_str());
    if (0 != symlink(pSlave, strNew.c_str()) || 0 != rename(strNew.c_str(), m_strNode.c_str())) {
        const int nError = errno;
        close(nSlave);
        close(nMaster);
        errno = nError;
        return false;
    }
    m_strSlave = pSlave;
    m_nMaster = nMaster;
    m_nSlave = nSlave;
    return true;
}

void PtyPort::unplug()
{
    if (!isPlugged()) {
        return;
    }
    unlink(m_strNode.c_str());
    close(m_nSlave);
    close(m_nMaster);
    m_nSlave = -1;
    m_nMaster = -1;
}

bool PtyPort::isSpeedRight() const
{
    termios attr{};
    return 0 == tcgetattr(m_nSlave, &attr) && B115200 == cfgetospeed(&attr);
}

bool PtyPort::isOpenedByOthers()
{
    close(m_nSlave);
    pollfd entry{m_nMaster, 0, 0};
    const bool bOpen = poll(&entry, 1, 0) >= 0 && 0 == (entry.revents & POLLHUP);
    m_nSlave = open(m_strSlave.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    return bOpen;
}

bool PtyPort::hangsUpOnClose() const
{
    termios attr{};
    return 0 == tcgetattr(m_nSlave, &attr) && 0 != (attr.c_cflag & HUPCL);
}

std::string PtyPort::read() const
{
    std::array<char, 4096> acBuffer{};
    const ssize_t nRead = ::read(m_nMaster, acBuffer.data(), acBuffer.size());
    return (nRead > 0) ? std::string(acBuffer.data(), static_cast<size_t>(nRead)) : std::string();
}

size_t PtyPort::write(const std::string& strText) const
{
    const ssize_t nWritten = ::write(m_nMaster, strText.data(), strText.size());
    return (nWritten > 0) ? static_cast<size_t>(nWritten) : 0;
}
