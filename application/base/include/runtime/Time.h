// Time values of seconds and microseconds, the sleep built on them, clocks and time stamps.
#pragma once

#include <cstdint>
#include <string>

/** A duration or a point of the monotonic clock; never negative. */
class Time
{
public:
    Time() = default;

    /** Each negative part becomes 0; microseconds from 1,000,000 on are taken as they are. */
    Time(int32_t s32Seconds, int32_t s32Microseconds);

    /** From seconds with a fraction, truncated to microseconds; a negative number gives 0. */
    explicit Time(double dSeconds);

    uint32_t getSeconds() const
    {
        return m_u32Seconds;
    }
    uint32_t getMicroseconds() const
    {
        return m_u32Microseconds;
    }

    /** Difference, borrowing one second when needed; for other >= *this see operator-=. */
    Time operator-(const Time& other) const;
    Time operator+(const Time& other) const;
    Time& operator+=(const Time& other);
    /** 0 when the subtrahend is larger. */
    Time& operator-=(const Time& other);

    bool operator<(const Time& other) const;
    bool operator>(const Time& other) const
    {
        return other < *this;
    }
    bool operator<=(const Time& other) const
    {
        return !(other < *this);
    }
    bool operator>=(const Time& other) const
    {
        return !(*this < other);
    }
    bool operator==(const Time& other) const;

private:
    uint32_t m_u32Seconds = 0;
    uint32_t m_u32Microseconds = 0;
};

/** Sleep, by a select without descriptors; a signal may cut it short. @return 0 */
int sleepFor(const Time& time);

/** The monotonic clock. */
Time monotonicNow();

/** The monotonic clock in milliseconds, and the low half of that. */
uint64_t monotonicMs();
uint32_t monotonicMs32();

/**
 * Local wall-clock time as text.
 * @param nMode  0 "HH:MM:SS", 1 "YYYY-MM-DD_HH:MM:SS", anything else an empty string
 */
std::string timeStamp(int nMode);
