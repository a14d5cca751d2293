// A job: its lines once and in order, answered in time, dark at its end.
#include <gtest/gtest.h>

#include "InterlockDesk.h"

namespace {

const KestrelLanguage KESTREL;
const GrblLanguage GRBL;

/** The service sends a line and the controller takes it. */
void run(InterlockDesk& desk, const std::string& strLine)
{
    desk.service(strLine + "\n\n");
    desk.controller("ok\n");
}

} // namespace

TEST(InterlockJob, LinesPassInOrderAndAreAnsweredOnce)
{
    InterlockDesk desk(KESTREL);
    desk.open("M3 S500\nG1 X1 F1000\nM5\n");

    desk.service("M3 S500\n\n");
    EXPECT_EQ("M3 S500\n", desk.sent());
    EXPECT_EQ("", desk.told());
    desk.controller("ok\n");
    EXPECT_EQ("ok\n", desk.told());
    desk.service("G1 X1 F1000\n\n");
    EXPECT_EQ("G1 X1 F1000\n", desk.sent());
    desk.controller("ok\n");
    EXPECT_EQ("ok\n", desk.told());
    EXPECT_EQ(2U, desk.m_interlock.getJobLine());
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
}

TEST(InterlockJob, EndsDarkBehindAllMotion)
{
    InterlockDesk desk(KESTREL);
    desk.open("M3 S500\nG1 X50 F600\n");
    run(desk, "M3 S500");
    desk.service("G1 X50 F600\n\n");
    desk.forget();

    desk.controller("ok\n");
    EXPECT_EQ("M18 S0\n", desk.sent()); // answered behind the motion
    desk.service("\n");
    EXPECT_EQ("ok\n|ok\n", desk.told());
    desk.pass(4000);
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    EXPECT_EQ("", desk.sent());
    desk.controller("ok\n");
    EXPECT_EQ("M5\n", desk.sent());
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    desk.controller("ok\n");
    EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
    EXPECT_EQ(1, desk.count(NOTICE_JOB_DONE, 2));
    EXPECT_EQ(0, desk.count(NOTICE_TRIP));
    EXPECT_TRUE(desk.m_interlock.isHomed());
}

TEST(InterlockJob, GrblEndsDarkWhenReportsShowIdleAndNoBeam)
{
    InterlockDesk desk(GRBL);
    desk.open("M3 S500\nG1 X50 F600\n");
    desk.report("<Run|MPos:1.000,0.000,0.000|FS:600,500>\n");
    run(desk, "M3 S500");
    run(desk, "G1 X50 F600");
    EXPECT_EQ("M3S500\nG1X50F600\n", desk.sent());
    desk.pass(3000);
    EXPECT_EQ("", desk.sent());

    desk.report("<Idle|MPos:50.000,0.000,0.000|FS:0,500>\n"); // constant power stays on at rest
    desk.pass(40);
    EXPECT_EQ("M5\n", desk.sent());
    desk.controller("ok\n");
    desk.pass(100);
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    desk.report("<Idle|MPos:50.000,0.000,0.000|FS:0,0>\n");
    desk.pass(100);
    EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
    EXPECT_EQ(0, desk.count(NOTICE_TRIP));
}

TEST(InterlockJob, LaserOffBehindTheLastLineTrips)
{
    InterlockDesk desk(KESTREL);
    desk.open("M3 S500\nG1 X50 F600\n");
    run(desk, "M3 S500");
    run(desk, "G1 X50 F600");
    desk.service("\n");
    desk.forget();

    desk.service("M5\n"); // the service is stopped while the arm still moves

    EXPECT_EQ(CUT, desk.sent());
    EXPECT_EQ("ok\n", desk.told());
    EXPECT_TRUE(desk.tripped(TRIP_LINE_FOREIGN));
}

TEST(InterlockJob, EndThatStaysLitTrips)
{
    InterlockDesk desk(GRBL);
    desk.open("M3 S500\n");
    desk.report("<Idle|MPos:50.000,0.000,0.000|FS:0,500>\n");
    run(desk, "M3 S500");
    desk.pass(150);
    desk.controller("ok\n");
    desk.forget();

    desk.pass(1000);

    EXPECT_EQ(CUT, desk.sent());
    EXPECT_TRUE(desk.tripped(TRIP_END_LATE));
}

TEST(InterlockJob, EqualNeighboursEachPassOnce)
{
    InterlockDesk desk(KESTREL);
    desk.open("G91\nG1 X1\nG1 X1\nG1 X1\nM5\n");
    run(desk, "G91");
    desk.forget();

    run(desk, "G1 X1");
    run(desk, "G1 X1");
    run(desk, "G1 X1");

    EXPECT_EQ("G1 X1\nG1 X1\nG1 X1\n", desk.sent());
    EXPECT_EQ("ok\n|ok\n|ok\n", desk.told());
}

TEST(InterlockJob, LineThatIsNotTakenInEightSecondsIsRepeatedAndSentOnce)
{
    InterlockDesk desk(KESTREL);
    desk.open("G1 X60 F60\nG91\nG1 X-1\nG1 X-1\n"); // a minute, then short ones
    run(desk, "G1 X60 F60");
    run(desk, "G91");
    desk.forget();

    desk.service("G1 X-1\n\n");
    desk.pass(7999);
    EXPECT_EQ("", desk.told());
    desk.pass(1);
    EXPECT_EQ("wait\n", desk.told());
    desk.pass(500);
    desk.service("G1 X-1\n\n");
    desk.pass(3000);
    desk.controller("ok\n");
    EXPECT_EQ("ok\n", desk.told());
    EXPECT_EQ("G1 X-1\n", desk.sent());
    desk.service("G1 X-1\n\n");
    EXPECT_EQ("G1 X-1\n", desk.sent());
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
}

TEST(InterlockJob, AnswersAroundEightSecondsKeepTheOrder)
{
    for (const int64_t s64Ms : {7900, 8000, 8100}) {
        InterlockDesk desk(KESTREL);
        desk.open("G1 X60 F60\nG91\nG1 X-1\nG1 X-1\nM5\n");
        run(desk, "G1 X60 F60");
        run(desk, "G91");
        desk.forget();

        desk.service("G1 X-1\n\n");
        desk.pass(s64Ms);
        desk.controller("ok\n");
        const std::string strTold = desk.told();
        if (s64Ms < 8000) {
            EXPECT_EQ("ok\n", strTold);
        } else {
            EXPECT_EQ("wait\n", strTold);
            desk.pass(500);
            desk.service("G1 X-1\n\n");
            EXPECT_EQ("ok\n", desk.told());
        }
        EXPECT_EQ("G1 X-1\n", desk.sent()) << s64Ms;
        desk.service("G1 X-1\n\n");
        EXPECT_EQ("G1 X-1\n", desk.sent()) << s64Ms;
        EXPECT_EQ(0, desk.count(NOTICE_TRIP));
    }
}

TEST(InterlockJob, RepeatHasToBeTheSameLine)
{
    InterlockDesk desk(KESTREL);
    desk.open("G1 X60 F60\nG1 X1\nG1 X2\n");
    run(desk, "G1 X60 F60");
    desk.service("G1 X1\n\n");
    desk.pass(8000);
    desk.forget();

    desk.service("G1 X2\n\n");

    EXPECT_EQ(CUT, desk.sent());
    EXPECT_TRUE(desk.tripped(TRIP_LINE_FOREIGN));
}

TEST(InterlockJob, EmptyLinesAreAnsweredAndStayHere)
{
    InterlockDesk desk(KESTREL);
    desk.open("G1 X1\n\n\nM5\n");
    run(desk, "G1 X1");
    desk.forget();
    desk.pass(50);

    desk.service("\n\n");
    desk.pass(50);
    desk.service("\n\n");
    desk.pass(50);
    EXPECT_EQ("ok\n|ok\n", desk.told());
    EXPECT_EQ("", desk.sent());
    desk.service("M5\n\n");
    EXPECT_EQ("M5\n", desk.sent());
}

TEST(InterlockJob, MovesOfStrangersAreRefusedTwiceWithoutTrip)
{
    InterlockDesk desk(KESTREL);
    desk.open("G1 X1\nG1 X2\nM5\n");
    run(desk, "G1 X1");
    desk.forget();

    desk.service("$H\n");
    desk.service("G05 X1.00 Y1.00 F2000 \nM18 S1\n");
    desk.pass(100);

    EXPECT_EQ("error:27\n|error:27\n|error:27\n|error:27\n", desk.told());
    EXPECT_EQ("", desk.sent());
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    run(desk, "G1 X2");
    EXPECT_EQ("G1 X2\n", desk.sent());
}

TEST(InterlockJob, LineRepeatedSinceItsAnswerWentToStrangerIsNotSentAgain)
{
    InterlockDesk desk(KESTREL);
    desk.open("G1 X1\nG1 X2\nM5\n");
    desk.service("G1 X1\n\n");
    desk.service("$H\n");
    desk.controller("ok\n"); // read by who asked for the homing; the job read its refusal
    desk.pass(500);
    desk.forget();

    desk.service("G1 X1\n\n");

    EXPECT_EQ("ok\n", desk.told());
    EXPECT_EQ("", desk.sent());
    EXPECT_EQ(1U, desk.m_interlock.getJobLine());
    run(desk, "G1 X2");
    EXPECT_EQ("G1 X2\n", desk.sent());
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
}

TEST(InterlockJob, LaserOffAsNextLinePasses)
{
    InterlockDesk desk(KESTREL);
    desk.open("M5\nG1 X1\n");

    desk.service("M5\n\n");

    EXPECT_EQ("M5\n", desk.sent());
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
}

TEST(InterlockJob, GrblCommentLinesAreTakenWithoutBeingSent)
{
    InterlockDesk desk(GRBL);
    desk.open("(start)\nM5\n");

    desk.service("(start)\n\n");

    EXPECT_EQ("ok\n", desk.told());
    EXPECT_EQ("", desk.sent());
    EXPECT_EQ(1U, desk.m_interlock.getJobLine());
}

TEST(InterlockJob, NextOneNeedNotWaitForTheEstimateOfTheLast)
{
    InterlockDesk desk(KESTREL);
    desk.open("G1 X50 F60\n"); // a minute, as is estimated
    run(desk, "G1 X50 F60");

    desk.controller("ok\nok\n"); // all motion has ended, and the beam is off

    ASSERT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
    EXPECT_EQ(WISH_DONE, desk.m_interlock.openJob("M5\n", 3, 0, desk.m_s64NowUs));
}

TEST(InterlockJob, EmptyLineBehindTheFormerJobMayComeInTheNext)
{
    InterlockDesk desk(KESTREL);
    desk.open("M5\n");
    run(desk, "M5");
    desk.controller("ok\nok\n"); // all motion has ended, and the beam is off
    ASSERT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
    ASSERT_EQ(WISH_DONE, desk.m_interlock.openJob("G1 X1\nM5\n", 9, 0, desk.m_s64NowUs));
    desk.forget();

    desk.service("\n");

    EXPECT_EQ("ok\n", desk.told());
    EXPECT_EQ("", desk.sent());
    EXPECT_EQ(LEVEL_JOB, desk.m_interlock.getLevel());
    run(desk, "G1 X1");
    EXPECT_EQ(1U, desk.m_interlock.getJobLine());
    desk.pass(100);
    desk.service("\n"); // but once, and ahead of its lines
    EXPECT_TRUE(desk.tripped(TRIP_LINE_FOREIGN));
}

TEST(InterlockJob, LinesOfADarkLevelDoNotCount)
{
    InterlockDesk desk(KESTREL);
    desk.home();
    ASSERT_EQ(WISH_DONE, desk.m_interlock.drop(desk.m_s64NowUs));
    desk.controller("ok\n");
    ASSERT_EQ(WISH_DONE, desk.m_interlock.openJob("G1 X1\nM5\n", 9, 0, desk.m_s64NowUs));
    desk.forget();

    desk.service("G1 X1\n\n");

    EXPECT_EQ("G1 X1\n", desk.sent());
    EXPECT_EQ(WISH_LEVEL, desk.m_interlock.openJob("M5\n", 3, 0, desk.m_s64NowUs));
}
