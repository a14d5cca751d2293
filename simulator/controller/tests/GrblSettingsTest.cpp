// The numbered settings of Grbl 1.1.
#include "GrblSettings.h"

#include <gtest/gtest.h>

TEST(GrblSettings, NewOnesAreListedInOrder)
{
    EXPECT_EQ("$0=10\r\n$1=25\r\n$2=0\r\n$3=0\r\n$4=0\r\n$5=0\r\n$6=0\r\n$10=1\r\n$11=0.010\r\n"
              "$12=0.002\r\n$13=0\r\n$20=0\r\n$21=0\r\n$22=0\r\n$23=0\r\n$24=25.000\r\n"
              "$25=500.000\r\n$26=250\r\n$27=1.000\r\n$30=1000\r\n$31=0\r\n$32=0\r\n"
              "$100=250.000\r\n$101=250.000\r\n$102=250.000\r\n$110=500.000\r\n$111=500.000\r\n"
              "$112=500.000\r\n$120=10.000\r\n$121=10.000\r\n$122=10.000\r\n$130=200.000\r\n"
              "$131=200.000\r\n$132=200.000\r\n",
              GrblSettings().format());
}

TEST(GrblSettings, WholeOnesAreCutAndOthersAreNot)
{
    GrblSettings settings;

    EXPECT_EQ(0, settings.set(26, 99.9));
    EXPECT_EQ(0, settings.set(110, 99.9));

    EXPECT_EQ(99, settings.get(26));
    EXPECT_EQ(99.9, settings.get(110));
}

TEST(GrblSettings, RefusedOnesStayAsTheyAre)
{
    GrblSettings settings;

    EXPECT_EQ(3, settings.set(7, 1));
    EXPECT_EQ(3, settings.set(133, 1));
    EXPECT_EQ(4, settings.set(110, -1));
    EXPECT_EQ(6, settings.set(0, 2));
    EXPECT_EQ(0, settings.set(0, 3));
    EXPECT_EQ(10, settings.set(20, 1));

    EXPECT_EQ(500, settings.get(110));
    EXPECT_EQ(3, settings.get(0));
    EXPECT_FALSE(settings.isOn(20));
}

TEST(GrblSettings, SoftLimitsGoWithHoming)
{
    GrblSettings settings;
    EXPECT_EQ(0, settings.set(22, 1));
    EXPECT_EQ(0, settings.set(20, 1));
    EXPECT_TRUE(settings.isOn(20));

    EXPECT_EQ(0, settings.set(22, 0));

    EXPECT_FALSE(settings.isOn(20));
}

TEST(GrblSettings, RestoreMakesThemNew)
{
    GrblSettings settings;
    EXPECT_EQ(0, settings.set(32, 1));

    settings.restore();

    EXPECT_FALSE(settings.isOn(32));
}
