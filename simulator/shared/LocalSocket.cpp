// Sockets in the file system.
#include "LocalSocket.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

bool makeAddress(const std::string& strPath, sockaddr_un& address)
{
    address.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    memcpy(address.sun_path, strPath.c_str(), strPath.size() + 1);
    return true;
}

int closeKeepingErrno(int nFd)
{
    const int nError = errno;
    ::close(nFd);
    errno = nError;
    return -1;
}

} // namespace

int listenAt(const std::string& strPath, int nType)
{
    sockaddr_un address{};
    if (!makeAddress(strPath, address)) {
        return -1;
    }
    const int nFd = ::socket(AF_UNIX, nType | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (nFd < 0) {
        return -1;
    }
    ::unlink(strPath.c_str());
    if (0 != ::bind(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) ||
        0 != ::listen(nFd, SOMAXCONN)) {
        return closeKeepingErrno(nFd);
    }
    return nFd;
}

int connectTo(const std::string& strPath, int nType)
{
    sockaddr_un address{};
    if (!makeAddress(strPath, address)) {
        return -1;
    }
    const int nFd = ::socket(AF_UNIX, nType | SOCK_CLOEXEC, 0);
    if (nFd >= 0 && 0 != ::connect(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address))) {
        return closeKeepingErrno(nFd);
    }
    return nFd;
}
