// The controller's reset line: a pin of the board, through sysfs.
#include "ResetPin.h"

#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

static const int STORE_MS = 400;  // the kernel takes a text at once, a busy virtual board later
static const int EXPORT_MS = 300; // for udev to make a new pin's files writable

ResetPin::ResetPin(const std::string& strFile)
    : m_strFile(strFile), m_strFolder(strFile.substr(0, strFile.rfind('/')))
{
    const size_t uName = m_strFolder.rfind('/') + 1; // of "gpio106"
    m_strExport = m_strFolder.substr(0, uName) + "export";
    const size_t uNumber = m_strFolder.find_first_of("0123456789", uName);
    m_strNumber = (std::string::npos == uNumber) ? "" : m_strFolder.substr(uNumber);
}

bool ResetPin::prepare() const
{
    return !isThere() || 0 == access(m_strFile.c_str(), W_OK) ||
           (store(m_strExport, m_strNumber) && awaitDirection() &&
            store(m_strFolder + "/direction", "high"));
}

/** @return whether the pin's direction can be set by now */
bool ResetPin::awaitDirection() const
{
    const std::string strDirection = m_strFolder + "/direction";
    for (int nMs = 0; nMs < EXPORT_MS; ++nMs) {
        if (0 == access(strDirection.c_str(), W_OK)) {
            return true;
        }
        (void)poll(nullptr, 0, 1);
    }
    return false;
}

bool ResetPin::hold(bool bLow) const
{
    if (!isThere() || store(m_strFile, bLow ? "0" : "1")) {
        return true;
    }
    // An input takes no level: these words are direction and level in one step.
    return prepare() && store(m_strFolder + "/direction", bLow ? "low" : "high");
}

bool ResetPin::isHeld() const
{
    return isThere() && 'o' == readFirst(m_strFolder + "/direction") && // "out"
           '0' == readFirst(m_strFile);
}

/** @return a file's first character; 0: none. A virtual board's pin is a FIFO, which tells nothing.
 */
char ResetPin::readFirst(const std::string& strPath)
{
    struct stat status
    {
    };
    if (0 != stat(strPath.c_str(), &status) || !S_ISREG(status.st_mode)) {
        return '\0';
    }
    const int nFd = ::open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    char cFirst = '\0';
    const bool bRead = nFd >= 0 && 1 == ::read(nFd, &cFirst, 1);
    if (nFd >= 0) {
        ::close(nFd);
    }
    return bRead ? cFirst : '\0';
}

bool ResetPin::store(const std::string& strPath, const std::string& strText)
{
    const int nFd = ::open(strPath.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (nFd < 0) {
        return false;
    }
    pollfd entry{nFd, POLLOUT, 0};
    (void)poll(&entry, 1, STORE_MS);
    const ssize_t nWritten = ::write(nFd, strText.data(), strText.size());
    const int nError = errno;
    ::close(nFd);
    errno = nError;
    return static_cast<ssize_t>(strText.size()) == nWritten;
}
