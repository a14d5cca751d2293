// Masks one varying number of a golden text, e.g. a time stamp.
#pragma once

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <string>

/** The clock's second. Not time(2), which lags behind the precise clock by a tick. */
inline time_t preciseSeconds()
{
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec;
}

/**
 * Replace the digits and blanks between two marks by as many '#'; anything else there stays, so
 * that the comparison with the golden text fails.
 * @return the number, -1 when the marks or the number are missing
 */
inline long maskNumber(std::string& strText, const std::string& strBefore,
                       const std::string& strBehind)
{
    const size_t uStart = strText.find(strBefore);
    if (std::string::npos == uStart) {
        return -1;
    }
    const size_t uField = uStart + strBefore.size();
    const size_t uEnd = strText.find(strBehind, uField);
    if (std::string::npos == uEnd || uEnd == uField || 0 == isdigit(strText[uEnd - 1])) {
        return -1;
    }
    const long lNumber = strtol(strText.c_str() + uField, nullptr, 10);
    for (size_t u = uField; u < uEnd; ++u) {
        if (0 != isdigit(strText[u]) || ' ' == strText[u]) {
            strText[u] = '#';
        }
    }
    return lNumber;
}
