// The TCP port that this process listens on, when the kernel has chosen it.
#pragma once

#include <cstdint>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

/** @return that of the process's listening socket with the lowest descriptor, 0 without one */
inline uint16_t listeningPort()
{
    for (int nFd = 3; nFd < 1024; ++nFd) {
        int nListens = 0;
        socklen_t uLength = sizeof(nListens);
        if (0 != getsockopt(nFd, SOL_SOCKET, SO_ACCEPTCONN, &nListens, &uLength) || 0 == nListens) {
            continue;
        }
        sockaddr_in address{};
        uLength = sizeof(address);
        (void)getsockname(nFd, reinterpret_cast<sockaddr*>(&address), &uLength);
        return ntohs(address.sin_port);
    }
    return 0;
}
