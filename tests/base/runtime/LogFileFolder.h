// The log file in a folder of its own.
#pragma once

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "Log.h"
#include "LogFile.h"
#include "ScratchFolder.h"
#include "Time.h"

inline void logLine(const std::string& strText)
{
    Log::getInstance().log("Some.cpp", 1, "doIt", 2, "%s", strText.c_str());
}

/** Files are named by the second: wait until the name changes. */
inline void waitForNextSecond()
{
    const std::string strNow = timeStamp(1);
    while (strNow == timeStamp(1)) {
        sleepFor(Time(0, 5000));
    }
}

/** The log goes to files of the folder, and nowhere else. */
class LogFileFolder : public testing::Test
{
protected:
    LogFileFolder()
    {
        Log::getInstance().setLayout(0).setSinks(0);
        testing::internal::CaptureStdout();
    }

    ~LogFileFolder() override
    {
        LogFile::getInstance().close();
        Log::getInstance().setLayout(127).setSinks(LOG_SINK_CONSOLE);
        (void)testing::internal::GetCapturedStdout();
    }

    std::string base() const
    {
        return (m_folder.path() / "log").string();
    }

    RET_E init(uint32_t u32LimitKiB, int32_t s32Files)
    {
        return LogFile::getInstance().init(base(), u32LimitKiB, s32Files);
    }

    /** Names behind the base path's last component, oldest first. */
    std::vector<std::string> names() const
    {
        std::vector<std::string> vecName;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.path())) {
            vecName.push_back(entry.path().filename().string());
        }
        std::sort(vecName.begin(), vecName.end());
        return vecName;
    }

    /** The modification time of a file of the folder. */
    void setTime(const char* pName, time_t nSeconds, long lNanoseconds = 0) const
    {
        const timespec aTime[2] = {{nSeconds, lNanoseconds}, {nSeconds, lNanoseconds}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, (m_folder.path() / pName).c_str(), aTime, 0));
    }

    std::string contents() const
    {
        std::string strAll;
        for (const std::string& strName : names()) {
            strAll += m_folder.read(strName);
        }
        return strAll;
    }

    ScratchFolder m_folder;
};
