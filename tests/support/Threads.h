// The threads that this process has.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

/** Whether the kernel has it wait for something. False for one that has ended, too. */
inline bool isAsleep(int32_t s32Tid)
{
    std::ifstream file("/proc/self/task/" + std::to_string(s32Tid) + "/stat");
    std::string strLine;
    std::getline(file, strLine);
    const size_t uName = strLine.rfind(')'); // the name before it may hold anything
    return std::string::npos != uName && 0 == strLine.compare(uName, 3, ") S");
}

/** How many of them bear the name. */
inline int countThreads(const std::string& strName)
{
    int nCount = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string strComm;
        std::getline(std::ifstream(entry.path() / "comm"), strComm); // gone meanwhile: empty
        nCount += (strName == strComm) ? 1 : 0;
    }
    return nCount;
}
