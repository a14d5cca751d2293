// Trips, counted by the guard's words for them.
#include "TripCount.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

TEST(TripCount, EveryReasonIsToldBeforeItHappens)
{
    const TripCount count;

    const std::string strText = count.tell("trips");

    EXPECT_EQ(21, std::count(strText.begin(), strText.end(), '\n'));
    EXPECT_EQ(0U, strText.find("trips{reason=\"other\"} 0\ntrips{reason=\"service gone\"} 0\n"));
    EXPECT_NE(std::string::npos, strText.find("trips{reason=\"not the job's next line\"} 0\n"));
    EXPECT_NE(std::string::npos, strText.find("trips{reason=\"shutdown\"} 0\n"));
}

TEST(TripCount, CountsByReason)
{
    TripCount count;

    count.add("alarm");
    count.add("operator");
    count.add("operator");

    const std::string strText = count.tell("trips");
    EXPECT_NE(std::string::npos, strText.find("trips{reason=\"alarm\"} 1\n"));
    EXPECT_NE(std::string::npos, strText.find("trips{reason=\"operator\"} 2\n"));
    EXPECT_NE(std::string::npos, strText.find("trips{reason=\"lease\"} 0\n"));
    EXPECT_NE(std::string::npos, strText.find("trips{reason=\"other\"} 0\n"));
}

TEST(TripCount, ReasonOfAnotherGuardIsNotLost)
{
    TripCount count;

    count.add("a \"newer\" guard's reason");
    count.add("");
    count.add("none");

    EXPECT_EQ(0U, count.tell("trips").find("trips{reason=\"other\"} 3\n"));
}
