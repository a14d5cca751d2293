// Pauses of the operator's, and holds of the controller's own.
#include <gtest/gtest.h>

#include "InterlockDesk.h"

namespace {

const KestrelLanguage KESTREL;
const GrblLanguage GRBL;

const char* const JOB = "M4 S500\nG1 X50 F600\nG1 X0\nM5\n";

void runFirst(InterlockDesk& desk)
{
    desk.open(JOB);
    desk.report("<Run|MPos:1.000,0.000,0.000|FS:600,500>\n");
    desk.service("M4 S500\n\n");
    desk.controller("ok\n");
    desk.forget();
}

} // namespace

TEST(InterlockPause, IsToldDarkWhenTheReportSaysHeldWithoutBeam)
{
    InterlockDesk desk(GRBL);
    runFirst(desk);

    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    EXPECT_EQ("!", desk.sent());
    desk.report("<Hold:1|MPos:1.000,0.000,0.000|FS:200,200>\n");
    desk.pass(500);
    EXPECT_FALSE(desk.m_interlock.isPaused());
    desk.report("<Hold:0|MPos:1.000,0.000,0.000|FS:0,0>\n");
    desk.pass(60);
    EXPECT_TRUE(desk.m_interlock.isPaused());
    EXPECT_EQ(1, desk.count(NOTICE_PAUSED));
}

TEST(InterlockPause, ThatStaysLitForASecondTrips)
{
    InterlockDesk desk(GRBL);
    runFirst(desk);

    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    desk.report("<Hold:0|MPos:1.000,0.000,0.000|FS:0,500>\n"); // laser mode is off
    desk.pass(999);
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    desk.report("");
    desk.pass(1);
    EXPECT_TRUE(desk.tripped(TRIP_PAUSE_LATE));
    EXPECT_EQ("!" + CUT, desk.sent());
}

TEST(InterlockPause, LineWaitsAndLaserOffOfTheServiceStaysHere)
{
    InterlockDesk desk(GRBL);
    runFirst(desk);
    desk.service("G1 X50 F600\n\n");
    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    desk.report("<Hold:0|MPos:1.000,0.000,0.000|FS:0,0>\n");
    EXPECT_EQ("status:1\n", desk.told());

    desk.pass(500);
    desk.service("G1 X50 F600\n\n");
    desk.service("M5\n");
    EXPECT_EQ("status:1\n|ok\n", desk.told());
    desk.pass(60000);

    EXPECT_EQ("G1X50F600\n!", desk.sent());
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
}

TEST(InterlockPause, ResumeGoesOnWithTheSameLineOnce)
{
    InterlockDesk desk(GRBL);
    runFirst(desk);
    desk.service("G1 X50 F600\n\n");
    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    desk.report("<Hold:0|MPos:1.000,0.000,0.000|FS:0,0>\n");
    desk.pass(60);
    desk.service("M5\n");
    desk.forget();

    ASSERT_EQ(WISH_DONE, desk.m_interlock.resume(desk.m_s64NowUs));
    EXPECT_EQ("~", desk.sent());
    desk.report("<Run|MPos:1.000,0.000,0.000|FS:600,500>\n");
    desk.controller("ok\n");
    desk.service("G1 X50 F600\n\n");
    EXPECT_EQ("status:4\nok\n", desk.told());
    EXPECT_EQ("", desk.sent()); // no M5, and the line not again
    desk.service("G1 X0\n\n");
    EXPECT_EQ("G1X0\n", desk.sent());
}

TEST(InterlockPause, NextLineIsKeptUntilResumed)
{
    InterlockDesk desk(GRBL);
    runFirst(desk);
    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    desk.report("<Hold:0|MPos:1.000,0.000,0.000|FS:0,0>\n");
    desk.pass(60);
    desk.forget();

    desk.service("G1 X50 F600\n\n");
    EXPECT_EQ("status:1\n", desk.told());
    EXPECT_EQ("", desk.sent());
    ASSERT_EQ(WISH_DONE, desk.m_interlock.resume(desk.m_s64NowUs));
    desk.forget();
    desk.service("G1 X50 F600\n\n");
    EXPECT_EQ("G1X50F600\n", desk.sent());
}

TEST(InterlockPause, ServiceHasTwoSecondsAfterResume)
{
    InterlockDesk desk(GRBL);
    runFirst(desk);
    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    desk.report("<Hold:0|MPos:1.000,0.000,0.000|FS:0,0>\n");
    desk.pass(60000);
    ASSERT_EQ(WISH_DONE, desk.m_interlock.resume(desk.m_s64NowUs));
    desk.report("<Run|MPos:1.000,0.000,0.000|FS:600,500>\n");

    desk.pass(1999);
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    desk.pass(1);
    EXPECT_TRUE(desk.tripped(TRIP_SERVICE_SILENT));
}

TEST(InterlockPause, WithoutReportsAProbeShowsTheHold)
{
    InterlockDesk desk(KESTREL);
    runFirst(desk);

    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    EXPECT_EQ("!()\n", desk.sent());
    EXPECT_FALSE(desk.m_interlock.isPaused());
    desk.controller("status:1\n");
    desk.pass(50);
    EXPECT_TRUE(desk.m_interlock.isPaused());
    ASSERT_EQ(WISH_DONE, desk.m_interlock.resume(desk.m_s64NowUs));
    EXPECT_EQ("~\n", desk.sent());
    desk.controller("ok\n");
    desk.service("G1 X50 F600\n\n");
    EXPECT_EQ("G1 X50 F600\n", desk.sent());
    desk.controller("status:4\nok\n");
    EXPECT_EQ("status:4\nok\n", desk.told());
}

TEST(InterlockPause, LineAndProbeBothNotTakenInOneReadAreToldApart)
{
    InterlockDesk desk(KESTREL);
    runFirst(desk);
    desk.service("G1 X50 F600\n\n");

    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    desk.controller("status:1\nstatus:1\n");
    desk.pass(50);

    EXPECT_TRUE(desk.m_interlock.isPaused());
    EXPECT_EQ(1U, desk.m_interlock.getJobLine());
}

TEST(InterlockPause, ProbeThatIsTakenForASecondTrips)
{
    InterlockDesk desk(KESTREL);
    runFirst(desk);

    ASSERT_EQ(WISH_DONE, desk.m_interlock.pause(desk.m_s64NowUs));
    for (int n = 0; n < 10; ++n) {
        desk.controller("ok\n");
        desk.pass(200);
        if (LEVEL_JOB != desk.m_interlock.getLevel()) {
            break;
        }
    }

    EXPECT_TRUE(desk.tripped(TRIP_PAUSE_LATE));
}

TEST(InterlockPause, HoldOfTheControllerIsToldByStatusAlone)
{
    InterlockDesk desk(KESTREL);
    runFirst(desk);

    desk.service("G1 X50 F600\n\n");
    desk.controller("status:1\n"); // held, and not taken
    desk.pass(50);
    EXPECT_EQ("status:1\n", desk.told());
    desk.pass(500);
    desk.service("G1 X50 F600\n\n");
    EXPECT_EQ("G1 X50 F600\nG1 X50 F600\n", desk.sent()); // the first one was not taken
    desk.controller("status:4\nok\n");
    EXPECT_EQ("status:4\nok\n", desk.told());
    EXPECT_EQ(2U, desk.m_interlock.getJobLine());
}

TEST(InterlockPause, LineThatAHeldControllerDoesNotTakeMovesOnce)
{
    InterlockDesk desk(KESTREL);
    desk.open("G91\nG1 X40 F600\nG1 X40\n");
    desk.service("G91\n\n");
    desk.controller("ok\n");
    for (int n = 0; n < 5; ++n) { // the box ends at 100
        desk.service("G1 X40 F600\n\n");
        desk.controller("status:1\n");
        desk.pass(500);
    }
    desk.service("G1 X40 F600\n\n");
    desk.controller("status:4\nok\n");
    desk.service("G1 X40\n\n");
    desk.controller("ok\n");

    EXPECT_FALSE(desk.tripped(TRIP_LINE_BAD));
    EXPECT_EQ(3U, desk.m_interlock.getJobLine());
}

TEST(InterlockPause, HoldOfTheControllerIsToldAndItsEnd)
{
    InterlockDesk desk(KESTREL);
    runFirst(desk);
    desk.service("G1 X50 F600\n\n");
    desk.controller("status:1\n");
    desk.pass(50);
    EXPECT_TRUE(desk.m_interlock.isHeld());
    EXPECT_EQ(1, desk.count(NOTICE_HELD));
    EXPECT_EQ(0, desk.count(NOTICE_GOES_ON));

    desk.pass(500);
    desk.service("G1 X50 F600\n\n");
    desk.controller("status:4\nok\n");

    EXPECT_FALSE(desk.m_interlock.isHeld());
    EXPECT_EQ(1, desk.count(NOTICE_HELD));
    EXPECT_EQ(1, desk.count(NOTICE_GOES_ON));
}

TEST(InterlockPause, GrblLineThatIsTakenInAHoldDoesNotEndIt)
{
    InterlockDesk desk(GRBL);
    runFirst(desk);
    desk.service("G1 X50 F600\n\n");
    desk.report("<Hold:0|MPos:1.000,0.000,0.000|FS:0,0>\n");
    desk.pass(250);

    desk.controller("ok\n"); // its queue has room

    EXPECT_TRUE(desk.m_interlock.isHeld());
    EXPECT_EQ(0, desk.count(NOTICE_GOES_ON));
    desk.report("<Run|MPos:1.000,0.000,0.000|FS:600,500>\n");
    desk.pass(250);
    EXPECT_FALSE(desk.m_interlock.isHeld());
    EXPECT_EQ(1, desk.count(NOTICE_GOES_ON));
}

TEST(InterlockPause, StatusWithAcknowledgementIsToldInTwoSteps)
{
    InterlockDesk desk(KESTREL);
    runFirst(desk);

    desk.service("G1 X50 F600\n\n");
    desk.controller("status:3\nok\n");
    EXPECT_EQ("status:3\n", desk.told());
    desk.pass(500);
    desk.service("G1 X50 F600\n\n");

    EXPECT_EQ("status:4\nok\n", desk.told());
    EXPECT_EQ("G1 X50 F600\n", desk.sent());
    EXPECT_EQ(2U, desk.m_interlock.getJobLine());
}

TEST(InterlockPause, AttentionIsToldWithTheAcknowledgement)
{
    InterlockDesk desk(KESTREL);
    runFirst(desk);

    desk.service("G1 X50 F600\n\n");
    desk.controller("status:2\nok\n");

    EXPECT_EQ("status:2\nok\n", desk.told());
}

TEST(InterlockPause, StatusWithoutAMeaningIsToldWithTheAcknowledgement)
{
    InterlockDesk desk(KESTREL);
    runFirst(desk);

    desk.service("G1 X50 F600\n\n");
    desk.controller("status:7\nok\n");

    EXPECT_EQ("status:7\nok\n", desk.told());
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
}

TEST(InterlockPause, GrblHoldIsToldAndItsTimeDoesNotCount)
{
    InterlockDesk desk(GRBL);
    runFirst(desk);
    desk.service("G1 X50 F600\n\n");
    desk.report("<Hold:0|MPos:1.000,0.000,0.000|FS:0,0>\n");
    desk.pass(250);
    EXPECT_EQ("status:1\n", desk.told());

    for (int n = 0; n < 120; ++n) { // a minute of repeats
        desk.pass(500);
        desk.service("G1 X50 F600\n\n");
        ASSERT_EQ("status:1\n", desk.told());
    }
    desk.report("<Run|MPos:1.000,0.000,0.000|FS:600,500>\n");
    desk.pass(250);
    desk.service("G1 X50 F600\n\n");
    desk.controller("ok\n");

    EXPECT_EQ("status:4\nok\n", desk.told());
    EXPECT_EQ("G1X50F600\n", desk.sent());
}

TEST(InterlockPause, IsForJobsOnly)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    EXPECT_EQ(WISH_LEVEL, desk.m_interlock.pause(desk.m_s64NowUs));
    EXPECT_EQ(WISH_LEVEL, desk.m_interlock.resume(desk.m_s64NowUs));
    EXPECT_EQ("", desk.sent());
}
