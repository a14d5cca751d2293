// Reads a file that was given on the command line.
#include "InputFile.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Output.h"

static const size_t MAX_SIZE = 33554432; // 32 MiB

bool readInputFile(const std::string& strPath, std::string& strText)
{
    FILE* const pFile = fopen(strPath.c_str(), "re");
    std::array<char, 65536> acBlock{};
    size_t uRead = 1;
    errno = 0;
    while (nullptr != pFile && uRead > 0 && strText.size() <= MAX_SIZE) {
        uRead = fread(acBlock.data(), 1, acBlock.size(), pFile);
        strText.append(acBlock.data(), uRead);
    }
    const bool bRead = nullptr != pFile && 0 == ferror(pFile);
    if (!bRead) {
        complain(strPath + ": " + strerror(errno));
    }
    if (nullptr != pFile) {
        fclose(pFile);
    }
    return bRead;
}
