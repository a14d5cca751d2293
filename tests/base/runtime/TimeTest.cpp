// Time values, the clocks, the sleep and the time stamps.
#include "Time.h"

#include <cstdint>
#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Pattern.h"

namespace {

void expectTime(uint32_t u32Seconds, uint32_t u32Microseconds, const Time& time)
{
    EXPECT_EQ(u32Seconds, time.getSeconds());
    EXPECT_EQ(u32Microseconds, time.getMicroseconds());
}

uint64_t millisecondsOf(const Time& time)
{
    return time.getSeconds() * uint64_t{1000} + time.getMicroseconds() / 1000;
}

/** Of a clock. */
Time timeOf(const timespec& ts)
{
    return {static_cast<int32_t>(ts.tv_sec), static_cast<int32_t>(ts.tv_nsec / 1000)};
}

} // namespace

TEST(Time, NegativePartsBecomeZero)
{
    expectTime(0, 500, Time(-1, 500));
    expectTime(3, 0, Time(3, -1));
    expectTime(0, 0, Time());
}

TEST(Time, FromANumberOfSeconds)
{
    expectTime(0, 0, Time(-0.5));
    expectTime(0, 0, Time(0.0));
    expectTime(2, 250000, Time(2.25));
    expectTime(0, 999999, Time(0.9999999));         // truncated
    expectTime(4294967295U, 0, Time(4294967296.0)); // the most there is
    expectTime(4294967295U, 0, Time(4294967296.5));
}

TEST(Time, SumCarriesASecond)
{
    expectTime(2, 100000, Time(1, 900000) + Time(0, 200000));
    expectTime(2, 0, Time(1, 500000) + Time(0, 500000));
    expectTime(1, 999999, Time(1, 500000) + Time(0, 499999));
    Time sum(1, 900000);
    sum += Time(1, 100000);
    expectTime(3, 0, sum);
}

TEST(Time, SecondsBeyondAnIntAreKept)
{
    const Time last(INT32_MAX, 999999); // what a long and a time_t of 32 bits hold

    expectTime(2147483648U, 999998, last + Time(0, 999999));
    expectTime(2147483647U, 999999, last + Time(1, 0) - Time(1, 0));
    EXPECT_TRUE(last < last + Time(1, 0));
}

TEST(Time, DifferenceBorrowsASecond)
{
    expectTime(0, 999900, Time(1, 100) - Time(0, 200));
    expectTime(1, 100, Time(3, 300) - Time(2, 200));
}

TEST(Time, SubtractingInPlaceStopsAtZero)
{
    Time time(2, 100);
    time -= Time(1, 200);
    expectTime(0, 999900, time);
    time -= Time(1, 0);
    expectTime(0, 0, time);
}

TEST(Time, ComparesSecondsFirst)
{
    EXPECT_LT(Time(1, 900000), Time(2, 0));
    EXPECT_LT(Time(1, 1), Time(1, 2));
    EXPECT_GT(Time(2, 0), Time(1, 900000));
    EXPECT_LE(Time(1, 1), Time(1, 1));
    EXPECT_GE(Time(1, 1), Time(1, 1));
    EXPECT_FALSE(Time(1, 1) < Time(1, 1));
    EXPECT_FALSE(Time(1, 1) > Time(1, 1));
    EXPECT_FALSE(Time(1, 2) <= Time(1, 1));
    EXPECT_FALSE(Time(1, 1) >= Time(1, 2));
    EXPECT_TRUE(Time(1, 1) == Time(1, 1));
    EXPECT_FALSE(Time(1, 1) == Time(1, 2));
    EXPECT_FALSE(Time(1, 1) == Time(2, 1));
}

TEST(Time, SleepLastsAtLeastTheTime)
{
    const Time before = monotonicNow();

    EXPECT_EQ(0, sleepFor(Time(0, 30000)));

    EXPECT_GE(monotonicNow() - before, Time(0, 30000));
}

TEST(Time, ClocksAgree)
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const Time now = monotonicNow();
    timespec after{};
    clock_gettime(CLOCK_MONOTONIC, &after);
    const uint64_t u64Ms = monotonicMs();
    const uint32_t u32Ms = monotonicMs32();
    const Time last = monotonicNow();

    EXPECT_GE(now, timeOf(ts));
    EXPECT_LE(now, timeOf(after));
    EXPECT_GE(u64Ms, millisecondsOf(now));
    EXPECT_LE(u64Ms, millisecondsOf(last));
    // The low half.
    EXPECT_LE(u32Ms - static_cast<uint32_t>(u64Ms), millisecondsOf(last) - u64Ms);
}

TEST(Time, StampsHaveTheirFields)
{
    EXPECT_TRUE(hasPattern(timeStamp(0), "^[0-2][0-9]:[0-5][0-9]:[0-6][0-9]$"));
    EXPECT_TRUE(hasPattern(timeStamp(1), "^[0-9]{4}-[01][0-9]-[0-3][0-9]_"
                                         "[0-2][0-9]:[0-5][0-9]:[0-6][0-9]$"));
    EXPECT_EQ("", timeStamp(2));
    EXPECT_EQ("", timeStamp(-1));
}

// A program of its own whose clock stands still.
TEST(Time, StampsArePaddedWithZeros)
{
    const ChildResult result = runChild({BASE_CHILD, "stamp", "2026", "3", "3", "9", "5", "0"});

    EXPECT_EQ("09:05:00\n2026-03-03_09:05:00\n", result.strOutput);
    EXPECT_EQ(0, result.nStatus);
}
