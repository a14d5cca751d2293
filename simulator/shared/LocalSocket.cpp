// Listening sockets in the file system.
#include "LocalSocket.h"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int listenAt(const std::string& strPath, int nType)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (strPath.size() >= sizeof(address.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(address.sun_path, strPath.c_str(), strPath.size() + 1);
    const int nFd = ::socket(AF_UNIX, nType | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (nFd < 0) {
        return -1;
    }
    ::unlink(strPath.c_str());
    if (0 != ::bind(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) ||
        0 != ::listen(nFd, SOMAXCONN)) {
        const int nError = errno;
        ::close(nFd);
        errno = nError;
        return -1;
    }
    return nFd;
}
