// Files on a C library that knows less of fopen's mode: this program's fopen and fdopen read it as
// some small libraries do.
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "ScratchFolder.h"
#include "TempFile.h"

namespace {

/** The first letter, a b, and a + directly behind either; the rest is not looked at. */
std::string understood(const char* pMode)
{
    std::string strMode(1, *pMode++);
    if ('b' == *pMode) {
        strMode += *pMode++;
    }
    if ('+' == *pMode) {
        strMode += '+';
    }
    return strMode;
}

} // namespace

// The linker gives the program's calls to the first of each pair.
extern "C" FILE* __real_fopen(const char* pPath, const char* pMode);
extern "C" FILE* __real_fdopen(int nFd, const char* pMode);

extern "C" FILE* __wrap_fopen(const char* pPath, const char* pMode)
{
    return __real_fopen(pPath, understood(pMode).c_str());
}

extern "C" FILE* __wrap_fdopen(int nFd, const char* pMode)
{
    return __real_fdopen(nFd, understood(pMode).c_str());
}

TEST(FileSmallLibrary, TextFileIsReadAndWritten)
{
    const ScratchFolder folder;
    File file;
    ASSERT_EQ(0, file.open((folder.path() / "f").c_str(), FILE_FLAG_READ | FILE_FLAG_WRITE));
    EXPECT_EQ(3u, file.write("abc", 3));
    rewind(file.getStream());
    char acText[4] = {};

    EXPECT_EQ(3u, file.read(acText, 3));

    EXPECT_STREQ("abc", acText);
}

TEST(FileSmallLibrary, DescriptorIsCloseOnExec)
{
    const ScratchFolder folder;
    File file;
    ASSERT_EQ(0, file.open((folder.path() / "f").c_str(), FILE_FLAG_WRITE));

    EXPECT_NE(0, fcntl(fileno(file.getStream()), F_GETFD) & FD_CLOEXEC);
}

TEST(FileSmallLibrary, TemporaryFileIsReadAndWritten)
{
    TempFile file;
    ASSERT_EQ(0, file.create(FILE_FLAG_READ | FILE_FLAG_WRITE));
    EXPECT_EQ(3u, file.write("abc", 3));
    rewind(file.getStream());
    char acText[4] = {};

    EXPECT_EQ(3u, file.read(acText, 3));

    EXPECT_STREQ("abc", acText);
}
