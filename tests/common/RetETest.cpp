// The result codes that every module shares.
#include "RetE.h"

#include <gtest/gtest.h>

TEST(RetE, CodesHaveTheirNumbers)
{
    EXPECT_EQ(0, RET_SUCCESS);
    EXPECT_EQ(1, RET_FAILED);
    EXPECT_EQ(2, RET_TIMEOUT);
    EXPECT_EQ(3, RET_AGAIN);
}
