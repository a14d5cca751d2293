// Moments as the operator's interface tells them.
#include "WallTime.h"

#include <array>
#include <cstdio>
#include <ctime>

std::string getWallTime()
{
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now); // fails for no clock that there is
    tm parts{};
    (void)gmtime_r(&now.tv_sec, &parts);
    std::array<char, 96> acText{};
    snprintf(acText.data(), acText.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ",
             parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min,
             parts.tm_sec, static_cast<int>(now.tv_nsec / 1000000));
    return acText.data();
}
