// A failing call of one socket, and the line that it leaves in the log.
#pragma once

#include <cstdio>

#include <sys/socket.h>

#include "Socket.h"

inline std::string plan(const char* pCall, int nFd, const char* pWhich, int nError)
{
    char acPlan[80];
    snprintf(acPlan, sizeof(acPlan), "%s=%d:%s:%d", pCall, nFd, pWhich, nError);
    return acPlan;
}

inline Socket datagramSocket()
{
    return Socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}
