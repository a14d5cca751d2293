// Tests that notice some changes of Planted.cpp.
#include "Planted.h"

#include <gtest/gtest.h>

TEST(Planted, LargerOne)
{
    EXPECT_EQ(5, larger(5, 3));
    EXPECT_EQ(5, larger(3, 5));
}

TEST(Planted, StepsDown)
{
    int nValue = 6;

    EXPECT_TRUE(step(nValue));

    EXPECT_EQ(0, nValue);
}

TEST(Planted, ValuesOutsideOfFunctions)
{
    EXPECT_EQ(9, clipped(20));
    EXPECT_EQ(4, slots());
}

TEST(Planted, LengthBetween)
{
    const char acText[] = "planted";

    EXPECT_EQ(7, length(acText, acText + 7));
}

// Passes when all tests are run, and fails when some are chosen: no change is to be judged by it.
TEST(Planted, PassesInTheWholeOnly)
{
    EXPECT_EQ("*", testing::GTEST_FLAG(filter));
}

// The build leaves it out, so no change is put to it, and nobody waits for it.
TEST(Planted, IsLeftOut)
{
    FAIL();
}
