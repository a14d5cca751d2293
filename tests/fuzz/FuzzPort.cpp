// The print link's port under the fuzzer, and the functions that the linker puts below the service.
#include "FuzzPort.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <unistd.h>

FuzzPort g_port;

void FuzzPort::beginStep()
{
    strFirstRead.clear();
    strFirstSent.clear();
    bSendTried = false;
}

void FuzzPort::calm()
{
    strPending.clear();
    bReadFails = false;
    bWriteFails = false;
}

extern "C" int __real_poll(pollfd* pEntries, nfds_t uCount, int nTimeoutMs);
extern "C" int __wrap_poll(pollfd* pEntries, nfds_t uCount, int)
{
    if (1 == uCount && pEntries->fd == g_port.nFd) {
        return (g_port.bReadFails || !g_port.strPending.empty()) ? 1 : 0;
    }
    return __real_poll(pEntries, uCount, 0);
}

extern "C" int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*)
{
    return 0;
}

extern "C" ssize_t __real_read(int nFd, void* pBuffer, size_t uSize);
extern "C" ssize_t __wrap_read(int nFd, void* pBuffer, size_t uSize)
{
    if (nFd != g_port.nFd) {
        return __real_read(nFd, pBuffer, uSize);
    }
    if (g_port.bReadFails) {
        g_port.bReadFails = false;
        errno = EIO; // a cable that was pulled
        return -1;
    }
    const size_t uRead = std::min(uSize, g_port.strPending.size());
    memcpy(pBuffer, g_port.strPending.data(), uRead);
    if (!g_port.bDropping && g_port.strFirstRead.empty()) {
        g_port.strFirstRead = g_port.strPending.substr(0, uRead);
    }
    g_port.strPending.erase(0, uRead);
    return static_cast<ssize_t>(uRead);
}

extern "C" ssize_t __real_write(int nFd, const void* pData, size_t uSize);
extern "C" ssize_t __wrap_write(int nFd, const void* pData, size_t uSize)
{
    if (nFd != g_port.nFd) {
        return __real_write(nFd, pData, uSize);
    }
    g_port.bDropping = false;
    if (g_port.bCut && !g_port.bWriteFails) {
        if (1 != uSize || '\n' != *static_cast<const char*>(pData)) {
            fprintf(stderr, "not true: a line end alone behind what was cut\n");
            abort();
        }
        g_port.bCut = false;
        g_port.bDropping = true;
        return 1;
    }
    const bool bFirst = !g_port.bSendTried;
    g_port.bSendTried = true;
    if (g_port.bWriteFails) {
        g_port.bWriteFails = false;
        g_port.bCut = true;
        errno = EAGAIN; // a controller that does not read
        return -1;
    }
    if (bFirst) {
        g_port.strFirstSent.assign(static_cast<const char*>(pData), uSize);
    }
    return static_cast<ssize_t>(uSize);
}

extern "C" int __real_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttr,
                                     void* (*pBody)(void*), void* pArg);
extern "C" int __wrap_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttr,
                                     void* (*pBody)(void*), void* pArg)
{
    return g_port.bNoThread ? EAGAIN : __real_pthread_create(pThread, pAttr, pBody, pArg);
}

extern "C" long __wrap_syscall(long lNumber, ...)
{
    if (SYS_gettid != lNumber) {
        fprintf(stderr, "unexpected system call %ld\n", lNumber);
        abort();
    }
    return g_port.bOnThread ? 0 : getpid(); // 0: what a Thread answers that has none
}
