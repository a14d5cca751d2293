// What has happened, line by line on standard output.
#include "Journal.h"

#include <array>
#include <cstdio>
#include <ctime>

#include <unistd.h>

void Journal::write(const char* pText)
{
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
    // 512 bytes go into a pipe whole or not at all: PIPE_BUF of pipe(7).
    const ssize_t nWritten = ::write(m_nFd, acLine.data(), static_cast<size_t>(nLength));
    m_uDropped = (nWritten == nLength) ? 0 : m_uDropped + 1;
}
