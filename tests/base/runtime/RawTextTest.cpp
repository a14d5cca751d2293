// Text without printf: the numbers' forms, the cut, and writing it out.
#include "RawText.h"

#include <climits>
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Fault.h"

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
    EXPECT_GE(strText.size(), 100u);
    EXPECT_EQ(0u, strText.find("0123456789012"));
    EXPECT_LT(strText.size(), 1000u);
}

TEST(RawText, SignalAndShortWriteDoNotCutThePrint)
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

TEST(RawText, NothingIsAllocated)
{
    const unsigned long ulBefore = faultThreadAllocations();

    RawText().append("kill -9 ").appendDecimal(12345).appendHex(0xabc).print(-1);

    EXPECT_EQ(ulBefore, faultThreadAllocations());
}
