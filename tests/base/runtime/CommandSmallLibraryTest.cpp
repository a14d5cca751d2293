// Commands on a C library whose popen knows no more than "r", as that of some small libraries.
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Command.h"

namespace {

FILE* g_pPipe = nullptr;
int g_nFlags = -1; // of the pipe, when it is read from

} // namespace

// The linker gives the program's calls to the first of each pair.
extern "C" FILE* __wrap_popen(const char* pCommand, const char* pMode);
extern "C" FILE* __real_popen(const char* pCommand, const char* pMode);
extern "C" ssize_t __wrap_read(int nFd, void* pData, size_t uSize);
extern "C" ssize_t __real_read(int nFd, void* pData, size_t uSize);

FILE* __wrap_popen(const char* pCommand, const char* pMode)
{
    g_pPipe = __real_popen(pCommand, std::string(1, *pMode).c_str());
    return g_pPipe;
}

ssize_t __wrap_read(int nFd, void* pData, size_t uSize)
{
    if (nullptr != g_pPipe && fileno(g_pPipe) == nFd) {
        g_nFlags = fcntl(nFd, F_GETFD);
    }
    return __real_read(nFd, pData, uSize);
}

TEST(CommandSmallLibrary, PipeIsCloseOnExec)
{
    char acOutput[8];

    EXPECT_TRUE(captureCommand("echo abc", acOutput, sizeof(acOutput)));

    EXPECT_STREQ("abc\n", acOutput);
    EXPECT_EQ(FD_CLOEXEC, g_nFlags);
    g_pPipe = nullptr;
}
