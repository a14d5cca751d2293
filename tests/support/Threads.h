// The threads that this process has.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

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
