// Beam off is repeated until it is seen.
#include <gtest/gtest.h>

#include "InterlockDesk.h"

namespace {

const KestrelLanguage KESTREL;
const GrblLanguage GRBL;

} // namespace

TEST(InterlockController, BeamOffIsRepeatedUntilGreeted)
{
    InterlockDesk desk(KESTREL);
    desk.m_interlock.onPortUp(desk.m_s64NowUs);
    EXPECT_EQ(CUT, desk.sent());

    desk.pass(999);
    EXPECT_EQ("", desk.sent());
    EXPECT_EQ(0, desk.count(NOTICE_OFF_FAILED));
    desk.pass(1);
    EXPECT_EQ(CUT, desk.sent());
    EXPECT_EQ(1, desk.count(NOTICE_OFF_FAILED, 1));
    EXPECT_TRUE(desk.m_actions.m_bReset);
    desk.pass(2000);
    EXPECT_EQ(CUT + CUT, desk.sent());
    desk.controller("ready\n");
    desk.pass(10000);
    EXPECT_EQ("", desk.sent());
    EXPECT_TRUE(desk.m_interlock.isBeamSeenOff());
}

TEST(InterlockController, GrblHasToReportNoBeam)
{
    InterlockDesk desk(GRBL);
    desk.m_interlock.onPortUp(desk.m_s64NowUs);
    desk.report("<Idle|MPos:0.000,0.000,0.000|FS:0,500>\n");
    desk.controller("Grbl 1.1h ['$' for help]\n");

    desk.pass(500);
    EXPECT_FALSE(desk.m_interlock.isBeamSeenOff());
    EXPECT_EQ(CUT, desk.sent());
    desk.report("<Alarm|MPos:0.000,0.000,0.000|FS:0,0>\n");
    desk.pass(100);
    EXPECT_TRUE(desk.m_interlock.isBeamSeenOff());
    EXPECT_EQ("$$\n", desk.sent());
}

TEST(InterlockController, GrblThatStaysLitIsToldOffAgain)
{
    InterlockDesk desk(GRBL);
    desk.m_interlock.onPortUp(desk.m_s64NowUs);
    desk.report("<Idle|MPos:0.000,0.000,0.000|FS:0,500>\n");
    desk.controller("Grbl 1.1h ['$' for help]\n");
    desk.forget();

    desk.pass(1000);

    EXPECT_EQ(CUT, desk.sent());
    EXPECT_EQ(1, desk.count(NOTICE_OFF_FAILED));
}

TEST(InterlockController, LockBehindTheGreetingCountsAsOff)
{
    InterlockDesk desk(GRBL);
    desk.m_interlock.onPortUp(desk.m_s64NowUs);
    desk.controller("Grbl 1.1h ['$' for help]\n[MSG:'$H'|'$X' to unlock]\n");
    EXPECT_FALSE(desk.m_interlock.isBeamSeenOff());

    desk.controller("error:9\n");

    EXPECT_TRUE(desk.m_interlock.isBeamSeenOff());
}

TEST(InterlockController, NothingButQuestionsFollowsATrip)
{
    InterlockDesk desk(GRBL);
    desk.open("M3 S500\nG1 X50 F6000\nM5\n");
    desk.service("M3 S500\n\n");
    desk.controller("ok\n");
    desk.forget();

    desk.m_interlock.off(desk.m_s64NowUs);
    desk.service("G1 X50 F6000\n\nM5\n$H\nG05 X1.00 Y1.00 F2000 \nM18 S1\n$X\n");
    desk.controller("ALARM:3\n");
    desk.pass(560);
    desk.controller("\nGrbl 1.1h ['$' for help]\n[MSG:'$H'|'$X' to unlock]\n");
    desk.report("<Alarm|MPos:7.000,0.000,0.000|FS:0,0>\n");
    desk.pass(100);
    desk.controller("$32=1\nok\n");
    desk.controller("ok\n");
    desk.pass(60000);

    EXPECT_EQ(CUT + "$$\n$#\n", desk.sent());
    EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
    EXPECT_TRUE(desk.m_interlock.isBeamSeenOff());
}

TEST(InterlockController, ResetInDarkIsLookedAtAnew)
{
    InterlockDesk desk(KESTREL);
    desk.home();
    (void)desk.m_interlock.drop(desk.m_s64NowUs);
    desk.forget();

    desk.controller("ready\n");

    EXPECT_EQ(CUT, desk.sent());
    EXPECT_FALSE(desk.m_interlock.isBeamSeenOff());
    EXPECT_FALSE(desk.m_interlock.isHomed());
    desk.controller("ready\n");
    EXPECT_TRUE(desk.m_interlock.isBeamSeenOff());
}

TEST(InterlockController, EachBeamOffMayBringAGreeting)
{
    for (const ILanguage* const pLanguage :
         {static_cast<const ILanguage*>(&KESTREL), static_cast<const ILanguage*>(&GRBL)}) {
        InterlockDesk desk(*pLanguage);
        desk.m_interlock.onPortUp(desk.m_s64NowUs);
        desk.pass(1000); // told twice
        desk.greet();
        ASSERT_TRUE(desk.m_interlock.isBeamSeenOff());
        EXPECT_EQ(WISH_BUSY, desk.m_interlock.raise(desk.m_s64NowUs));
        desk.forget();

        desk.pass(100);
        desk.controller(pLanguage->hasReports() ? "Grbl 1.1h ['$' for help]\n" : "ready\n");
        desk.pass(0);

        EXPECT_EQ(0, desk.count(NOTICE_TRIP));
        EXPECT_EQ(1, desk.count(NOTICE_OFF_SEEN)); // looked at anew
        EXPECT_EQ(pLanguage->hasReports() ? "$$\n" : "", desk.sent());
        desk.controller(pLanguage->hasReports() ? "ok\nok\n" : "");
        EXPECT_EQ(WISH_DONE, desk.m_interlock.raise(desk.m_s64NowUs));
    }
}

TEST(InterlockController, GreetingThatDoesNotComeIsWaitedForTwoSeconds)
{
    InterlockDesk desk(KESTREL);
    desk.m_interlock.onPortUp(desk.m_s64NowUs);
    desk.pass(1000);
    desk.greet();
    desk.forget();

    desk.pass(1999);
    EXPECT_EQ(WISH_BUSY, desk.m_interlock.raise(desk.m_s64NowUs));
    desk.pass(1);
    EXPECT_EQ(WISH_DONE, desk.m_interlock.raise(desk.m_s64NowUs));
    EXPECT_EQ("", desk.sent());

    desk.controller("ready\n");

    EXPECT_TRUE(desk.tripped(TRIP_CONTROLLER_RESET));
    EXPECT_EQ(CUT, desk.sent());
}

TEST(InterlockController, NoiseInDarkIsTold)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    desk.forget();

    desk.controller("\xFF\xFEnoise\n");

    EXPECT_EQ(3, desk.count(NOTICE_DROPPED));
    EXPECT_EQ("", desk.sent());
    EXPECT_TRUE(desk.m_interlock.isBeamSeenOff());
}
