// What has happened, line by line on standard output.
#include "Journal.h"

#include <array>
#include <cstdio>
#include <ctime>

#include <poll.h>
#include <unistd.h>

void Journal::write(const char* pText)
{
    // A pipe that is writable takes PIPE_BUF bytes, 512 at least, without blocking: pipe(7).
    pollfd output{m_nFd, POLLOUT, 0};
    if (1 != poll(&output, 1, 0) || 0 == (output.revents & POLLOUT)) {
        ++m_uDropped;
        return;
    }
    timespec wall{};
    timespec monotonic{};
    clock_gettime(CLOCK_REALTIME, &wall);
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    tm parts{};
    gmtime_r(&wall.tv_sec, &parts);
    std::array<char, 32> acDay{};
    strftime(acDay.data(), acDay.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    std::array<char, 512> acLine{};
    const int nLength =
        (0 == m_uDropped)
            ? snprintf(acLine.data(), acLine.size(), "%s.%03dZ %lld.%06d %.400s\n", acDay.data(),
                       static_cast<int>(wall.tv_nsec / 1000000),
                       static_cast<long long>(monotonic.tv_sec),
                       static_cast<int>(monotonic.tv_nsec / 1000), pText)
            : snprintf(acLine.data(), acLine.size(), "%s.%03dZ %lld.%06d %.360s (%u lost)\n",
                       acDay.data(), static_cast<int>(wall.tv_nsec / 1000000),
                       static_cast<long long>(monotonic.tv_sec),
                       static_cast<int>(monotonic.tv_nsec / 1000), pText, m_uDropped);
    m_uDropped = 0;
    (void)!::write(m_nFd, acLine.data(), static_cast<size_t>(nLength)); // nobody reads: so be it
}
