// Waiting for a descriptor, and ioctl, undisturbed by signals.
#include "DeviceIo.h"

#include <cerrno>
#include <climits>

#include <poll.h>
#include <sys/ioctl.h>

static bool waitFor(int nFd, short sEvents, uint32_t u32Seconds, uint32_t u32Microseconds)
{
    if (nFd < 0) {
        return true; // poll would skip it; select calls it an error
    }
    const uint64_t u64Ms = static_cast<uint64_t>(u32Seconds) * 1000 +
                           (static_cast<uint64_t>(u32Microseconds) + 999) / 1000;
    const int nTimeoutMs = (u64Ms > INT_MAX) ? INT_MAX : static_cast<int>(u64Ms);
    pollfd entry{};
    entry.fd = nFd;
    entry.events = sEvents;
    int nReady = 0;
    do { // Deliberate: the whole time again; the service has no handlers that could keep it up
        nReady = poll(&entry, 1, nTimeoutMs);
    } while (nReady < 0 && EINTR == errno);
    return 0 != nReady;
}

bool waitReadable(int nFd, uint32_t u32Seconds, uint32_t u32Microseconds)
{
    return waitFor(nFd, POLLIN, u32Seconds, u32Microseconds);
}

bool waitWritable(int nFd, uint32_t u32Seconds, uint32_t u32Microseconds)
{
    return waitFor(nFd, POLLOUT, u32Seconds, u32Microseconds);
}

int ioctlRetry(int nFd, unsigned long ulRequest, void* pArg)
{
    int nRet = 0;
    do {
        nRet = ioctl(nFd, ulRequest, pArg);
    } while (nRet < 0 && EINTR == errno);
    return nRet;
}
