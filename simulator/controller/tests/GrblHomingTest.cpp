// A homing run of Grbl 1.1.
#include "GrblHoming.h"

#include <gtest/gtest.h>

TEST(GrblHoming, LastsAsLongAsItsSpeedsSay)
{
    const GrblSettings settings; // seeks at 500, then 2 mm at 25 mm/min, 4 waits of 250 ms
    GrblHoming homing;

    homing.begin({{-100, 20, 0}}, 1000000, settings, 1);

    EXPECT_TRUE(homing.isActive());
    EXPECT_EQ(1000000 + 12000000 + 4800000 + 1000000, homing.getEndUs());
}

TEST(GrblHoming, SpedUpArmStillWaits)
{
    const GrblSettings settings;
    GrblHoming homing;

    homing.begin({{-100, 0, 0}}, 0, settings, 10);

    EXPECT_EQ(1200000 + 480000 + 1000000, homing.getEndUs());
}

TEST(GrblHoming, HeadGoesStraightToTheSwitches)
{
    const GrblSettings settings;
    GrblHoming homing;
    homing.begin({{-100, 40, -20}}, 0, settings, 1);

    EXPECT_EQ((Point{{-100, 40, -20}}), homing.getPosition(0));
    const Point middle = homing.getPosition(homing.getEndUs() / 2);
    EXPECT_NEAR(-50, middle[0], 0.001);
    EXPECT_NEAR(20, middle[1], 0.001);
    EXPECT_NEAR(-10, middle[2], 0.001);
    EXPECT_NEAR(0, homing.getPosition(homing.getEndUs())[0], 1e-9);
}

TEST(GrblHoming, EndEndsIt)
{
    const GrblSettings settings;
    GrblHoming homing;
    EXPECT_FALSE(homing.isActive());
    homing.begin({{1, 0, 0}}, 0, settings, 1);

    homing.end();

    EXPECT_FALSE(homing.isActive());
    EXPECT_EQ(-1, homing.getEndUs());
}

TEST(GrblHoming, HomeIsAPullOffFromTheSwitchOfEachAxis)
{
    GrblSettings settings; // travel 200, pull-off 1
    EXPECT_EQ((Point{{-1, -1, -1}}), GrblHoming::getHome(settings));

    ASSERT_EQ(0, settings.set(23, 5)); // X and Z at the other end
    EXPECT_EQ((Point{{-199, -1, -199}}), GrblHoming::getHome(settings));
}
