// The descriptors that this process has open.
#pragma once

#include <cstdlib>
#include <map>
#include <string>

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

/** Each open descriptor with what it leads to, as /proc names it. */
inline std::map<int, std::string> openDescriptors()
{
    std::map<int, std::string> mapOpen;
    DIR* const pDir = opendir("/proc/self/fd");
    while (const dirent* const pEntry = readdir(pDir)) {
        const int nFd = atoi(pEntry->d_name);
        if ('.' != pEntry->d_name[0] && dirfd(pDir) != nFd) {
            char acTarget[4096];
            const ssize_t nLength =
                readlinkat(dirfd(pDir), pEntry->d_name, acTarget, sizeof(acTarget));
            mapOpen[nFd].assign(acTarget, (nLength > 0) ? static_cast<size_t>(nLength) : 0);
        }
    }
    closedir(pDir);
    return mapOpen;
}

/** Those that lead to something with this text in its name. */
inline std::map<int, std::string> openDescriptors(const std::string& strText)
{
    std::map<int, std::string> mapOpen = openDescriptors();
    for (auto it = mapOpen.begin(); it != mapOpen.end();) {
        it = (std::string::npos == it->second.find(strText)) ? mapOpen.erase(it) : std::next(it);
    }
    return mapOpen;
}

/** Whether a socket at this IPv4 port was given send and receive buffers of so many bytes. */
inline bool hasSocketWithBuffers(uint16_t u16Port, int nBytes)
{
    for (const auto& [nFd, strTarget] : openDescriptors("socket:")) {
        sockaddr_in address{};
        socklen_t uLength = sizeof(address);
        int nSend = 0;
        int nReceive = 0;
        if (0 == getsockname(nFd, reinterpret_cast<sockaddr*>(&address), &uLength) &&
            htons(u16Port) == address.sin_port) {
            uLength = sizeof(int);
            getsockopt(nFd, SOL_SOCKET, SO_SNDBUF, &nSend, &uLength);
            getsockopt(nFd, SOL_SOCKET, SO_RCVBUF, &nReceive, &uLength);
        }
        if (2 * nBytes == nSend && 2 * nBytes == nReceive) { // socket(7): doubled
            return true;
        }
    }
    return false;
}
