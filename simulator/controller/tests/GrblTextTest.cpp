// Texts that several answers of Grbl 1.1 have in common.
#include "GrblText.h"

#include <gtest/gtest.h>

#include "GrblState.h"

TEST(GrblText, PointsHaveThreeDecimals)
{
    EXPECT_EQ("1.000,-2.500,0.001", formatPoint({{1, -2.5, 0.0006}}));
}

TEST(GrblText, ResultIsOkOrACode)
{
    EXPECT_EQ("ok\r\n", formatResult(0));
    EXPECT_EQ("error:11\r\n", formatResult(11));
    EXPECT_EQ("ALARM:3\r\n", formatAlarmCode(3));
}

TEST(GrblText, StatesHaveTheirNames)
{
    EXPECT_STREQ("Idle", formatState(GRBL_STATE_IDLE, true));
    EXPECT_STREQ("Run", formatState(GRBL_STATE_RUN, false));
    EXPECT_STREQ("Hold:0", formatState(GRBL_STATE_HOLD, true));
    EXPECT_STREQ("Hold:1", formatState(GRBL_STATE_HOLD, false));
    EXPECT_STREQ("Jog", formatState(GRBL_STATE_JOG, false));
    EXPECT_STREQ("Alarm", formatState(GRBL_STATE_ALARM, true));
    EXPECT_STREQ("Door:0", formatState(GRBL_STATE_DOOR, true));
    EXPECT_STREQ("Door:2", formatState(GRBL_STATE_DOOR, false));
    EXPECT_STREQ("Check", formatState(GRBL_STATE_CHECK, true));
    EXPECT_STREQ("Home", formatState(GRBL_STATE_HOME, false));
    EXPECT_STREQ("Sleep", formatState(GRBL_STATE_SLEEP, true));
}
