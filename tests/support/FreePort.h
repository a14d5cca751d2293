// A TCP port that nobody listens on.
#pragma once

#include <cstdint>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

/** Chosen by the kernel a moment ago; hardly anybody takes it before the test does. */
inline uint16_t freePort()
{
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t uLength = sizeof(address);
    (void)bind(nFd, reinterpret_cast<sockaddr*>(&address), uLength);
    (void)getsockname(nFd, reinterpret_cast<sockaddr*>(&address), &uLength);
    close(nFd);
    return ntohs(address.sin_port);
}
