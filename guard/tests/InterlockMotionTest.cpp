// Motion: moves with the beam off, answered as the service expects.
#include <gtest/gtest.h>

#include "InterlockDesk.h"

namespace {

const KestrelLanguage KESTREL;
const GrblLanguage GRBL;

} // namespace

TEST(InterlockMotion, HomingIsAnsweredTakenAndDone)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    ASSERT_TRUE(desk.raise());
    desk.forget();

    desk.service("$H\n");
    EXPECT_EQ("$H\n", desk.sent());
    EXPECT_EQ("", desk.told());
    desk.controller("ok\n");
    EXPECT_EQ("ok\n", desk.told());
    EXPECT_FALSE(desk.m_interlock.isHomed());
    desk.pass(3000);
    desk.controller("done\n");
    EXPECT_EQ("done\n", desk.told());
    EXPECT_TRUE(desk.m_interlock.isHomed());
}

TEST(InterlockMotion, MoveAndPilotAreAnsweredTogether)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    desk.service("G05 X-12.50 Y3.00 F2000 \nM18 S1\n");
    EXPECT_EQ("G05 X-12.50 Y3.00 F2000 \n", desk.sent());
    desk.controller("ok\n");
    EXPECT_EQ("ok\n", desk.told());
    desk.pass(400);
    desk.controller("done\n");
    EXPECT_EQ("M18 S1\n", desk.sent());
    EXPECT_EQ("", desk.told());
    desk.controller("ok\n");
    EXPECT_EQ("done\nok\n", desk.told());
}

TEST(InterlockMotion, SecondAnswerComesTenthOfSecondLaterAtLeast)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    desk.service("G05 Z-0.25 F1000 \n");
    desk.controller("ok\ndone\n");
    EXPECT_EQ("ok\n", desk.told());
    desk.pass(99);
    EXPECT_EQ("", desk.told());
    desk.pass(1);
    EXPECT_EQ("done\n", desk.told());
}

TEST(InterlockMotion, RefusedMoveIsAnsweredTwice)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    desk.forget();

    desk.service("G05 X1.00 Y1.00 F2000 \nM18 S1\n");

    EXPECT_EQ("error:20\n", desk.told());
    desk.pass(100);
    EXPECT_EQ("error:20\n", desk.told());
    desk.pass(30000);
    EXPECT_EQ("", desk.told());
    EXPECT_EQ("", desk.sent());
}

TEST(InterlockMotion, MoveThatTheControllerRefusesIsAnsweredTwiceWithoutLockCode)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    desk.service("G05 X1.00 Y1.00 F2000 \nM18 S1\n");
    desk.controller("error:9\n");
    desk.pass(200);

    EXPECT_EQ("error:25\n|error:25\n", desk.told());
    EXPECT_FALSE(desk.m_interlock.isHomed());
}

TEST(InterlockMotion, MoveBeforeHomingIsRefused)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    ASSERT_TRUE(desk.raise());
    desk.forget();

    desk.service("G05 X1.00 Y1.00 F2000 \n");
    desk.pass(200);

    EXPECT_EQ("error:23\n|error:23\n", desk.told());
    EXPECT_EQ("", desk.sent());
}

TEST(InterlockMotion, MovesStayWithinBoxAndFeed)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    for (const char* const pLine :
         {"G05 X100.01 Y0.00 F2000 \n", "G05 Xnan Y0.00 F2000 \n", "G05 X0.00 Y0.00 F6001 \n",
          "G05 X1.00 F2000 S5 \n", "G05 X1 \n", "G05 M3 X1 F100\n", "G05 X1 F100 (?)\n"}) {
        desk.service(pLine);
        desk.pass(200);
        EXPECT_EQ("error:23\n|error:23\n", desk.told()) << pLine;
    }
    EXPECT_EQ("", desk.sent());
}

TEST(InterlockMotion, LaserWordsAreRefusedWithTheirOwnCode)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    for (const char* const pLine : {"M3 S1\n\n", "M4\n\n", "G1 X1 S10\n\n", "S5\n\n"}) {
        desk.service(pLine);
        EXPECT_EQ("error:22\n", desk.told()) << pLine;
        desk.pass(100);
    }
    EXPECT_EQ("", desk.sent());
    EXPECT_EQ(LEVEL_MOTION, desk.m_interlock.getLevel());
}

TEST(InterlockMotion, LinesWithoutBeamPass)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    desk.service("G1 X10 F1000\n\n");
    EXPECT_EQ("G1 X10 F1000\n", desk.sent());
    desk.controller("ok\n");
    EXPECT_EQ("ok\n", desk.told());
    desk.service("G1 X101\n\n");
    EXPECT_EQ("error:23\n", desk.told());
    EXPECT_EQ("", desk.sent());
}

TEST(InterlockMotion, SingleCommandIsAnsweredInOneAndAHalfSeconds)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    desk.service("G1 X90 F600\n");
    desk.pass(1499);
    EXPECT_EQ("", desk.told());
    desk.pass(1);
    EXPECT_EQ("wait\n", desk.told());
    desk.controller("ok\n"); // too late for that answer, and nothing is sent unasked
    EXPECT_EQ("", desk.told());
    EXPECT_EQ("G1 X90 F600\n", desk.sent());
}

TEST(InterlockMotion, MoveThatIsNotTakenIsAnsweredInTime)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    desk.service("$H\n");
    desk.pass(1500);
    EXPECT_EQ("error:28\n", desk.told());
    desk.pass(100);
    EXPECT_EQ("error:28\n", desk.told());
    desk.controller("ok\n");
    desk.controller("done\n");
    desk.pass(30000);
    EXPECT_EQ("", desk.told());
}

TEST(InterlockMotion, MoveThatDoesNotEndIsAnsweredInNineteenSeconds)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    desk.service("$H\n");
    desk.controller("ok\n");
    desk.pass(18999);
    EXPECT_EQ("ok\n", desk.told());
    desk.pass(1);
    EXPECT_EQ("error:28\n", desk.told());
    desk.controller("done\n");
    desk.pass(1000);
    EXPECT_EQ("", desk.told());
    EXPECT_TRUE(desk.m_interlock.isHomed());
}

TEST(InterlockMotion, SecondMoveWaitsForNobody)
{
    InterlockDesk desk(KESTREL);
    desk.home();
    desk.service("$H\n");
    desk.controller("ok\n");
    desk.forget();

    desk.service("G05 X1.00 Y1.00 F2000 \n");
    desk.pass(200);

    EXPECT_EQ("error:24\n|error:24\n", desk.told());
    EXPECT_EQ("", desk.sent());
}

TEST(InterlockMotion, GrblMoveIsDoneWhenReportsSayIdle)
{
    InterlockDesk desk(GRBL);
    desk.home();

    desk.service("G05 X-12.50 Y3.00 F2000 \nM18 S1\n");
    EXPECT_EQ("G90G21G53G1X-12.50Y3.00F2000\n", desk.sent());
    desk.report("<Run|MPos:0.000,0.000,0.000|FS:100,0>\n");
    desk.controller("ok\n");
    EXPECT_EQ("ok\n", desk.told());
    desk.pass(2000);
    EXPECT_EQ("", desk.told());
    desk.report("<Idle|MPos:-12.500,3.000,0.000|FS:0,0>\n");
    desk.pass(110);
    EXPECT_EQ("M8\n", desk.sent());
    desk.controller("ok\n");
    EXPECT_EQ("done\nok\n", desk.told());
}

TEST(InterlockMotion, GrblPilotSpotIsOnWithTheLevelAndBehindHoming)
{
    InterlockDesk desk(GRBL);
    desk.plug();
    desk.forget();

    ASSERT_EQ(WISH_DONE, desk.m_interlock.raise(desk.m_s64NowUs));
    EXPECT_EQ("M8\n", desk.sent());
    ASSERT_EQ(WISH_DONE, desk.m_interlock.home(desk.m_s64NowUs));
    EXPECT_EQ("$H\n", desk.sent());
    desk.controller("error:9\n"); // locked until homed
    desk.controller("ok\n");
    desk.pass(200);

    EXPECT_TRUE(desk.m_interlock.isHomed());
    EXPECT_EQ("M8\n", desk.sent());
    EXPECT_EQ(WISH_BUSY, desk.m_interlock.openJob("M5\n", 3, 0, desk.m_s64NowUs));
    desk.controller("error:20\n"); // a controller without such an output
    EXPECT_EQ(WISH_DONE, desk.m_interlock.openJob("M5\n", 3, 0, desk.m_s64NowUs));
}

TEST(InterlockMotion, PilotSpotOfTheArmsOwnControllerStaysAsItIs)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    desk.forget();

    ASSERT_EQ(WISH_DONE, desk.m_interlock.raise(desk.m_s64NowUs));

    EXPECT_EQ("", desk.sent());
}

TEST(InterlockMotion, GrblHomingIsAnsweredTwice)
{
    InterlockDesk desk(GRBL);
    desk.plug();
    ASSERT_TRUE(desk.raise());
    desk.forget();

    desk.service("$H\n");
    desk.pass(200);
    EXPECT_EQ("ok\n", desk.told());
    desk.pass(5000); // reports nothing meanwhile
    EXPECT_EQ(LEVEL_MOTION, desk.m_interlock.getLevel());
    desk.report("<Idle|MPos:-1.000,-1.000,-1.000|FS:0,0>\n");
    desk.controller("ok\n");
    desk.pass(200);
    EXPECT_EQ("done\n", desk.told());
    EXPECT_TRUE(desk.m_interlock.isHomed());
}

TEST(InterlockMotion, GrblHomingThatIsOffIsRefusedTwice)
{
    InterlockDesk desk(GRBL);
    desk.plug();
    ASSERT_TRUE(desk.raise());
    desk.forget();

    desk.service("$H\n");
    desk.pass(4);
    desk.controller("error:5\n");
    desk.pass(300);

    EXPECT_EQ("error:5\n|error:5\n", desk.told());
    EXPECT_FALSE(desk.m_interlock.isHomed());
}

TEST(InterlockMotion, ArmWithoutSwitchesStandsWhereItReportsAtRest)
{
    InterlockDesk desk(GRBL, false);
    desk.plug();
    ASSERT_TRUE(desk.raise());
    desk.forget();

    desk.report("<Run|MPos:1.000,0.000,0.000|FS:600,0>\n");
    EXPECT_EQ(WISH_DONE, desk.m_interlock.home(desk.m_s64NowUs));
    desk.pass(1000);
    EXPECT_FALSE(desk.m_interlock.isHomed());
    desk.report("<Idle|MPos:95.000,-5.000,0.000|FS:0,0>\n");
    desk.pass(200);
    EXPECT_TRUE(desk.m_interlock.isHomed());
    EXPECT_EQ(1, desk.count(NOTICE_HOMED));
    EXPECT_EQ("", desk.sent()); // it has not moved

    desk.service("G91 G1 X6 F600\n"); // the box ends at 100
    EXPECT_EQ("error:23\n", desk.told());
    desk.service("G91 G1 X5 F600\n");
    EXPECT_EQ("G91G1X5F600\n", desk.sent());
}

TEST(InterlockMotion, HomingWithoutSwitchesIsRefusedTwiceAndThePlaceStays)
{
    InterlockDesk desk(GRBL, false);
    desk.plug();
    ASSERT_TRUE(desk.raise());
    ASSERT_EQ(WISH_DONE, desk.m_interlock.home(desk.m_s64NowUs));
    desk.pass(200);
    desk.forget();

    desk.service("$H\n");
    desk.pass(200);

    EXPECT_EQ("", desk.sent());
    EXPECT_EQ("error:21\n|error:21\n", desk.told());
    EXPECT_TRUE(desk.m_interlock.isHomed());
    desk.service("G05 X-5.00 Y3.00 F2000 \nM18 S1\n");
    EXPECT_EQ("G90G21G53G1X-5.00Y3.00F2000\n", desk.sent());
}

TEST(InterlockMotion, PlaceWithoutSwitchesIsAskedForAnewBehindATrip)
{
    InterlockDesk desk(GRBL, false);
    desk.plug();
    ASSERT_TRUE(desk.raise());
    ASSERT_EQ(WISH_DONE, desk.m_interlock.home(desk.m_s64NowUs));
    desk.pass(200);
    ASSERT_TRUE(desk.m_interlock.isHomed());

    desk.m_interlock.off(desk.m_s64NowUs);
    desk.greet();
    desk.pass(3000);

    EXPECT_FALSE(desk.m_interlock.isHomed());
    EXPECT_EQ(WISH_NOT_HOMED, desk.m_interlock.openJob("M5\n", 3, 0, desk.m_s64NowUs));
}

TEST(InterlockMotion, PlaceWithoutSwitchesIsNotTakenOnceTheLevelIsDark)
{
    InterlockDesk desk(GRBL, false);
    desk.plug();
    ASSERT_TRUE(desk.raise());
    desk.report("<Run|MPos:1.000,0.000,0.000|FS:600,0>\n");
    ASSERT_EQ(WISH_DONE, desk.m_interlock.home(desk.m_s64NowUs));
    desk.pass(200);

    ASSERT_EQ(WISH_DONE, desk.m_interlock.drop(desk.m_s64NowUs));
    desk.controller("ok\n");
    ASSERT_TRUE(desk.raise());
    desk.report("<Idle|MPos:1.000,0.000,0.000|FS:0,0>\n");
    desk.pass(3000);

    EXPECT_FALSE(desk.m_interlock.isHomed());
}

TEST(InterlockMotion, CutLineIsDropped)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    desk.service("G1 X1");
    desk.pass(100);
    desk.service("\n"); // ends the fragment
    desk.pass(100);
    desk.service("M5\n");

    EXPECT_EQ("ok\n", desk.told());
    EXPECT_EQ("M5\n", desk.sent());
}
