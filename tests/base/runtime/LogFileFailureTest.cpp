// The rotating log file: disks, folders and memory that refuse.
#include <filesystem>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Fault.h"
#include "FileSizeLimit.h"
#include "Log.h"
#include "LogFileFolder.h"

namespace fs = std::filesystem;

namespace {

using LogFileFailure = LogFileFolder;

} // namespace

TEST_F(LogFileFailure, FullDiskLosesLinesOnly)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));
    {
        const FileSizeLimit limit(4096);
        for (int i = 0; i < 100; ++i) {
            logLine(std::string(200, 'x') + "\n");
        }
    }

    logLine("room again\n");

    const std::string strText = contents();
    EXPECT_GE(strText.size(), 4096u);
    EXPECT_EQ("room again\n", strText.substr(strText.size() - 11));
}

TEST_F(LogFileFailure, FailedFlushesAndWritesAreSurvived)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 5));
    {
        FaultScope fault("fflush:1-10:ENOSPC;fwrite:1-10:ENOSPC");
        for (int i = 0; i < 20; ++i) {
            logLine("line\n");
        }
        EXPECT_GE(faultHits(), 20u);
    }
    logLine("end\n");

    EXPECT_EQ("line\nline\nline\nline\nline\nline\nline\nline\nline\nline\nend\n", contents());
}

TEST_F(LogFileFailure, RemovedFileIsFollowedByANewOneAtTheLimit)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 5));
    ASSERT_EQ(0, unlink((m_folder.path() / names()[0]).c_str()));
    logLine("into nowhere\n");
    EXPECT_TRUE(names().empty());
    waitForNextSecond();

    logLine(std::string(1024, 'x'));
    logLine("back\n");

    EXPECT_EQ("back\n", contents());
}

TEST_F(LogFileFailure, FolderThatCannotBeWrittenIsTriedOncePerSecond)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 5));
    waitForNextSecond();
    {
        const std::string strPlan = "fopen=" + base() + ":1-:EACCES";
        FaultScope fault(strPlan.c_str());
        logLine(std::string(1024, 'x')); // the rotation fails
        EXPECT_EQ(1u, faultHits());
        waitForNextSecond();
        unsigned uLines = 0;
        const std::string strSecond = timeStamp(1);
        while (strSecond == timeStamp(1)) {
            logLine("lost\n");
            ++uLines;
        }
        EXPECT_GE(faultHits(), 2u);
        EXPECT_LE(faultHits(), 3u); // not with every line
        EXPECT_GT(uLines, 3u);
    }
    waitForNextSecond();

    logLine("back\n");

    EXPECT_EQ(2u, names().size());
    EXPECT_EQ(std::string(1024, 'x') + "back\n", contents());
}

TEST_F(LogFileFailure, EveryAllocationOfANewFileMayFail)
{
    ASSERT_EQ(RET_SUCCESS, init(0, 5)); // a new file behind the first line of each second
    unsigned uFailed = 0;
    unsigned uHits = 1;
    while (0 != uHits) {
        waitForNextSecond();
        const std::string strPlan = "malloc:" + std::to_string(++uFailed) + ":ENOMEM";
        {
            FaultScope fault(strPlan.c_str());
            logLine("line\n"); // the first allocation is the line's own
            uHits = faultHits();
        }
        ASSERT_LT(uFailed, 50u);
        while (names().size() > 1) { // or each failure would bring another name
            fs::remove(m_folder.path() / names()[0]);
        }
    }

    EXPECT_GT(uFailed, 5u);
    logLine("end\n");
    EXPECT_NE(std::string::npos, contents().find("end\n"));
}

TEST_F(LogFileFailure, WithoutMemoryAtTheStartThereIsNoFile)
{
    const std::string strBase = base();
    Log::getInstance().setSinks(LOG_SINK_FILE);
    unsigned uHits = 1;
    for (unsigned i = 1; 0 != uHits; ++i) {
        LogFile::getInstance().close();
        for (const std::string& strName : names()) { // a new second gives a file of another name
            fs::remove(m_folder.path() / strName);
        }
        const std::string strPlan = "malloc:" + std::to_string(i) + ":ENOMEM";
        FaultScope fault(strPlan.c_str());
        Log::getInstance().initLogFile(strBase.c_str(), 4096, 2);
        logLine("line\n");
        uHits = faultHits();
    }

    EXPECT_EQ("line\n", contents());
}
