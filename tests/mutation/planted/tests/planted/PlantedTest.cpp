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
