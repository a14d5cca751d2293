// The exposure command, with a recording script in place of the tool.
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "ExposureTool.h"
#include "V4L2.h"

TEST(V4L2Exposure, AsksTheToolForManualModeAndThenTheValue)
{
    const ExposureTool tool;
    V4L2 v4l2;

    EXPECT_EQ(RET_SUCCESS, v4l2.setExposure(-1234567890));

    EXPECT_EQ("--set-ctrl=exposure_auto=1\n--set-ctrl=exposure_absolute=-1234567890\n",
              tool.calls());
}

TEST(V4L2Exposure, FailureOfTheToolIsIgnored)
{
    const ExposureTool tool(1);
    V4L2 v4l2;

    EXPECT_EQ(RET_SUCCESS, v4l2.setExposure(42));

    EXPECT_EQ("--set-ctrl=exposure_auto=1\n--set-ctrl=exposure_absolute=42\n", tool.calls());
}
