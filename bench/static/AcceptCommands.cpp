// accept-commands: the two shell commands of the service's accept, by the same call, in a loop.
//
// usage: accept-commands SECONDS
//
// Prints how many pairs it ran, the seconds they took and the processor time of all of it, the
// shells included.
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include <sys/resource.h>

#include "Command.h"

namespace {

double secondsOf(const timeval& time)
{
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double cpuSeconds()
{
    rusage own{};
    rusage children{};
    getrusage(RUSAGE_SELF, &own);
    getrusage(RUSAGE_CHILDREN, &children);
    return secondsOf(own.ru_utime) + secondsOf(own.ru_stime) + secondsOf(children.ru_utime) +
           secondsOf(children.ru_stime);
}

} // namespace

int main(int nCount, char** ppArgument)
{
    if (2 != nCount) {
        fprintf(stderr, "usage: accept-commands SECONDS\n");
        return 2;
    }
    const double dSeconds = atof(ppArgument[1]);
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const double dCpu = cpuSeconds();
    unsigned uPairs = 0;
    double dDone = 0;
    while (dDone < dSeconds) {
        char acLimits[65];
        if (!captureCommand("cat /proc/sys/net/ipv4/tcp_rmem", acLimits, sizeof(acLimits)) ||
            !captureCommand("cat /proc/sys/net/ipv4/tcp_wmem", acLimits, sizeof(acLimits))) {
            perror("cat");
            return 1;
        }
        ++uPairs;
        dDone = std::chrono::duration<double>(Clock::now() - start).count();
    }
    printf("%u %.6f %.6f\n", uPairs, dDone, cpuSeconds() - dCpu);
    return 0;
}
