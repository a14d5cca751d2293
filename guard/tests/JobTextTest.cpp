// The lines of an open job.
#include "JobText.h"

#include <string>

#include <gtest/gtest.h>

namespace {

bool isNext(const JobText& job, const std::string& strLine)
{
    return job.isNext(strLine.data(), strLine.size());
}

} // namespace

TEST(JobText, LinesComeInOrder)
{
    const std::string strJob = "G1 X1\n\nG1 X1\n";
    JobText job;
    job.open(strJob.data(), strJob.size());

    EXPECT_TRUE(isNext(job, "G1 X1"));
    EXPECT_FALSE(isNext(job, "G1 X"));
    EXPECT_FALSE(isNext(job, "G1 X1 "));
    job.advance();
    EXPECT_TRUE(isNext(job, ""));
    job.advance();
    EXPECT_TRUE(isNext(job, "G1 X1"));
    job.advance();
    EXPECT_TRUE(job.isDone());
    EXPECT_FALSE(isNext(job, ""));
    EXPECT_EQ(3U, job.getLine());
}

TEST(JobText, LastLineMayLackItsEnd)
{
    const std::string strJob = "M5";
    JobText job;
    job.open(strJob.data(), strJob.size());

    EXPECT_TRUE(isNext(job, "M5"));
    job.advance();
    EXPECT_TRUE(job.isDone());
}

TEST(JobText, ClosedJobTellsHowFarItCame)
{
    static const char TEXT[] = "G1\nG2\nG3\n";
    JobText job;
    job.open(TEXT, sizeof(TEXT) - 1);
    job.advance();
    job.advance();

    job.close();

    EXPECT_EQ(2U, job.getLine());
    job.open(TEXT, sizeof(TEXT) - 1);
    EXPECT_EQ(0U, job.getLine());
}

TEST(JobText, ClosedJobIsDone)
{
    const std::string strJob = "M5\n";
    JobText job;
    job.open(strJob.data(), strJob.size());
    job.close();

    EXPECT_TRUE(job.isDone());
}
