// Text without printf: the numbers' forms, the cut, and writing it out.
#include "RawText.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Fault.h"

namespace {

const int NO_FD = -2; // a test prints to -1

/** What writes to a descriptor take, one after the other. */
struct ShortWrites
{
    int nFd = NO_FD;
    std::vector<size_t> vecTaken;
    std::vector<size_t> vecAsked;
};

ShortWrites g_shortWrites;

} // namespace

// The linker gives the program's calls to the second.
extern "C" ssize_t __real_write(int nFd, const void* pData, size_t uSize);

extern "C" ssize_t __wrap_write(int nFd, const void* pData, size_t uSize)
{
    if (nFd != g_shortWrites.nFd) {
        return __real_write(nFd, pData, uSize);
    }
    const size_t uDone = g_shortWrites.vecAsked.size();
    g_shortWrites.vecAsked.push_back(uSize);
    if (uDone >= g_shortWrites.vecTaken.size()) {
        errno = EPIPE;
        return -1;
    }
    const size_t uTaken = g_shortWrites.vecTaken[uDone];
    return (0 == uTaken) ? 0 : __real_write(nFd, pData, uTaken);
}

namespace {

/** "two words", printed where writes take so many bytes. */
std::string printedBy(const std::vector<size_t>& vecTaken)
{
    int anFd[2];
    EXPECT_EQ(0, pipe2(anFd, O_CLOEXEC));
    g_shortWrites = {anFd[1], vecTaken, {}};
    errno = EINTR; // of something else; a write that succeeds leaves it alone
    RawText().append("two words").print(anFd[1]);
    g_shortWrites.nFd = NO_FD;
    close(anFd[1]);
    char acText[32] = {0};
    EXPECT_LE(0, read(anFd[0], acText, sizeof(acText) - 1));
    close(anFd[0]);
    return acText;
}

} // namespace

TEST(RawText, NumbersLookAsPrintfWritesThem)
{
    for (const int nValue : {0, 7, -7, 4711, INT_MAX, INT_MIN}) {
        EXPECT_EQ(std::to_string(nValue), RawText().appendDecimal(nValue).get());
    }
    for (const unsigned long ulValue : {0ul, 1ul, 0xdeadul, ULONG_MAX}) {
        char acExpected[32];
        snprintf(acExpected, sizeof(acExpected), "%#lx", ulValue);
        EXPECT_STREQ(acExpected, RawText().appendHex(ulValue).get());
    }
}

TEST(RawText, WhatDoesNotFitIsCut)
{
    RawText text;
    for (int i = 0; i < 100; ++i) {
        text.append("0123456789");
    }

    const std::string strText = text.get();
    EXPECT_EQ(159u, strText.size());
    EXPECT_EQ(0u, strText.find("0123456789012"));
}

TEST(RawText, SignalDoesNotCutThePrint)
{
    int anFd[2];
    ASSERT_EQ(0, pipe2(anFd, O_CLOEXEC));
    const std::string strPlan = "write=" + std::to_string(anFd[1]) + ":1-2:EINTR";
    {
        FaultScope fault(strPlan.c_str());
        RawText().append("two ").append("words").print(anFd[1]);
        EXPECT_EQ(2u, faultHits());
    }
    close(anFd[1]);

    char acText[32] = {0};
    EXPECT_EQ(9, read(anFd[0], acText, sizeof(acText)));
    EXPECT_STREQ("two words", acText);
    close(anFd[0]);
}

TEST(RawText, ShortWritesAreGoneOnWith)
{
    EXPECT_EQ("two words", printedBy({1, 6, 2}));
    EXPECT_EQ((std::vector<size_t>{9, 8, 2}), g_shortWrites.vecAsked);
}

TEST(RawText, WriteThatTakesNothingEndsThePrint)
{
    EXPECT_EQ("two", printedBy({3, 0, 6}));
    EXPECT_EQ((std::vector<size_t>{9, 6}), g_shortWrites.vecAsked);
}

TEST(RawText, NothingIsAllocated)
{
    const unsigned long ulBefore = faultThreadAllocations();

    RawText().append("kill -9 ").appendDecimal(12345).appendHex(0xabc).print(-1);

    EXPECT_EQ(ulBefore, faultThreadAllocations());
}
