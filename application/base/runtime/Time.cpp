// Time values of seconds and microseconds, the sleep built on them, clocks and time stamps.
#include "Time.h"

#include <cstdio>
#include <ctime>

#include <sys/select.h>

static const uint32_t MICROSECONDS = 1000000;

Time::Time(int32_t s32Seconds, int32_t s32Microseconds)
    : m_u32Seconds((s32Seconds < 0) ? 0 : static_cast<uint32_t>(s32Seconds)),
      m_u32Microseconds((s32Microseconds < 0) ? 0 : static_cast<uint32_t>(s32Microseconds))
{
}

Time::Time(double dSeconds)
{
    if (dSeconds > 0) {
        m_u32Seconds = (dSeconds < UINT32_MAX) ? static_cast<uint32_t>(dSeconds) : UINT32_MAX;
        const double dFraction = dSeconds - m_u32Seconds;
        m_u32Microseconds = (dFraction < 1) ? static_cast<uint32_t>(dFraction * MICROSECONDS) : 0;
    }
}

Time Time::operator-(const Time& other) const
{
    Time result(*this);
    if (result.m_u32Microseconds < other.m_u32Microseconds) {
        --result.m_u32Seconds;
        result.m_u32Microseconds += MICROSECONDS;
    }
    result.m_u32Seconds -= other.m_u32Seconds;
    result.m_u32Microseconds -= other.m_u32Microseconds;
    return result;
}

Time Time::operator+(const Time& other) const
{
    Time result(*this);
    result += other;
    return result;
}

Time& Time::operator+=(const Time& other)
{
    m_u32Seconds += other.m_u32Seconds;
    m_u32Microseconds += other.m_u32Microseconds;
    if (m_u32Microseconds >= MICROSECONDS) {
        ++m_u32Seconds;
        m_u32Microseconds -= MICROSECONDS;
    }
    return *this;
}

Time& Time::operator-=(const Time& other)
{
    *this = (*this < other) ? Time() : (*this - other);
    return *this;
}

bool Time::operator<(const Time& other) const
{
    if (m_u32Seconds != other.m_u32Seconds) {
        return m_u32Seconds < other.m_u32Seconds;
    }
    return m_u32Microseconds < other.m_u32Microseconds;
}

bool Time::operator==(const Time& other) const
{
    return m_u32Seconds == other.m_u32Seconds && m_u32Microseconds == other.m_u32Microseconds;
}

int sleepFor(const Time& time)
{
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(time.getSeconds());
    tv.tv_usec = static_cast<suseconds_t>(time.getMicroseconds());
    (void)select(0, nullptr, nullptr, nullptr, &tv);
    return 0;
}

Time monotonicNow()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return {static_cast<int32_t>(ts.tv_sec), static_cast<int32_t>(ts.tv_nsec / 1000)};
}

uint64_t monotonicMs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

uint32_t monotonicMs32()
{
    return static_cast<uint32_t>(monotonicMs());
}

std::string timeStamp(int nMode)
{
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char acText[80] = {0}; // room for any int in each field
    if (0 == nMode) {
        snprintf(acText, sizeof(acText), "%02d:%02d:%02d", local.tm_hour, local.tm_min,
                 local.tm_sec);
    } else if (1 == nMode) {
        snprintf(acText, sizeof(acText), "%04d-%02d-%02d_%02d:%02d:%02d", local.tm_year + 1900,
                 local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    }
    return acText;
}
