// Levels: what passes at each, and who raises them.
#include <gtest/gtest.h>

#include "InterlockDesk.h"

namespace {

const KestrelLanguage KESTREL;
const GrblLanguage GRBL;

} // namespace

TEST(InterlockLevel, BeginsDarkAndTurnsBeamOffWhenPortComes)
{
    InterlockDesk desk(KESTREL);
    EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
    EXPECT_FALSE(desk.m_interlock.isBeamSeenOff());

    desk.m_interlock.onPortUp(desk.m_s64NowUs);

    EXPECT_EQ(CUT, desk.sent());
    EXPECT_EQ(WISH_BEAM, desk.m_interlock.raise(desk.m_s64NowUs));
    desk.controller("ready\n");
    EXPECT_TRUE(desk.m_interlock.isBeamSeenOff());
    EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
    EXPECT_EQ(WISH_DONE, desk.m_interlock.raise(desk.m_s64NowUs));
    EXPECT_EQ(LEVEL_MOTION, desk.m_interlock.getLevel());
}

TEST(InterlockLevel, DarkRefusesEachLineAtOnceAndSendsNothing)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    desk.forget();

    for (const char* const pLine :
         {"G1 X1 F100\n\n", "M3 S500\n\n", "G90\n\n", "M18 S1\n", "?\n"}) {
        desk.service(pLine);
        EXPECT_EQ("error:20\n", desk.told()) << pLine;
        desk.pass(100);
    }
    EXPECT_EQ("", desk.sent());
}

TEST(InterlockLevel, LaserOffPassesInDarkAndMotion)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    desk.forget();

    desk.service("M5\n");
    EXPECT_EQ("ok\n", desk.told());
    EXPECT_EQ("M5\n", desk.sent());
    desk.controller("ok\n");
    ASSERT_TRUE(desk.raise());
    desk.service("M5\n");
    EXPECT_EQ("ok\n", desk.told());
    EXPECT_EQ("M5\n", desk.sent());
}

TEST(InterlockLevel, UnlockResumeAndFirmwareOfTheServiceNeverPass)
{
    for (int nLevel = LEVEL_DARK; nLevel <= LEVEL_JOB; ++nLevel) {
        InterlockDesk desk(KESTREL);
        if (LEVEL_DARK == nLevel) {
            desk.plug();
        } else if (LEVEL_MOTION == nLevel) {
            desk.home();
        } else {
            desk.open("G1 X1\n");
        }
        desk.forget();

        for (const char* const pLine : {"$X\n", "~\n", "M21\n"}) {
            desk.service(pLine);
            EXPECT_EQ("error:21\n", desk.told()) << pLine << nLevel;
        }
        EXPECT_EQ("", desk.sent());
        EXPECT_EQ(nLevel, desk.m_interlock.getLevel());
    }
}

TEST(InterlockLevel, DoubledLineEndCountsOnce)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    desk.forget();

    desk.service("G1 X1\n\n");
    EXPECT_EQ("error:20\n", desk.told());
    desk.service("G1 X1\n");
    desk.service("\n");
    EXPECT_EQ("error:20\n", desk.told());
    desk.pass(500);
    desk.service("\n");
    EXPECT_EQ("ok\n", desk.told());
    EXPECT_EQ("", desk.sent());
}

TEST(InterlockLevel, JobNeedsHomedArm)
{
    InterlockDesk desk(KESTREL);
    desk.plug();

    EXPECT_EQ(WISH_NOT_HOMED, desk.m_interlock.openJob("M5\n", 3, 0, desk.m_s64NowUs));
    EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
}

TEST(InterlockLevel, JobNeedsLaserMode)
{
    InterlockDesk desk(GRBL);
    desk.home();
    desk.m_interlock.onPortLost(desk.m_s64NowUs);
    desk.m_interlock.clearReset();
    desk.m_interlock.onPortUp(desk.m_s64NowUs);
    desk.controller("Grbl 1.1h ['$' for help]\n");
    desk.pass(0);
    desk.controller("$32=0\nok\nok\n");
    ASSERT_TRUE(desk.raise());
    ASSERT_EQ(WISH_DONE, desk.m_interlock.home(desk.m_s64NowUs));
    desk.controller("ok\n");
    desk.pass(300);
    desk.controller("ok\n"); // the pilot spot

    EXPECT_TRUE(desk.m_interlock.isHomed());
    EXPECT_EQ(WISH_LASER_MODE, desk.m_interlock.openJob("M5\n", 3, 0, desk.m_s64NowUs));
}

TEST(InterlockLevel, HomedArmIsReadyAtOnce)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    ASSERT_TRUE(desk.raise());
    ASSERT_EQ(WISH_DONE, desk.m_interlock.home(desk.m_s64NowUs));
    EXPECT_EQ(WISH_BUSY, desk.m_interlock.openJob("M5\n", 3, 0, desk.m_s64NowUs));

    desk.controller("ok\ndone\n");

    EXPECT_EQ("", desk.told());
    EXPECT_EQ(WISH_DONE, desk.m_interlock.openJob("M5\n", 3, 0, desk.m_s64NowUs));
}

TEST(InterlockLevel, LeaseIsTenSecondsAtMost)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    EXPECT_EQ(WISH_LEASE, desk.m_interlock.openJob("M5\n", 3, 10000001, desk.m_s64NowUs));
    EXPECT_EQ(WISH_DONE, desk.m_interlock.openJob("M5\n", 3, 10000000, desk.m_s64NowUs));
}

TEST(InterlockLevel, DropFromRestOnlySwitchesOff)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    EXPECT_EQ(WISH_DONE, desk.m_interlock.drop(desk.m_s64NowUs));

    EXPECT_EQ("M5\n", desk.sent());
    EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
    EXPECT_TRUE(desk.m_interlock.isHomed());
    EXPECT_EQ(WISH_LEVEL, desk.m_interlock.drop(desk.m_s64NowUs));
}

TEST(InterlockLevel, UnlockIsForDarkAndTheOperator)
{
    InterlockDesk desk(GRBL);
    desk.plug();
    desk.forget();

    EXPECT_EQ(WISH_DONE, desk.m_interlock.unlock(desk.m_s64NowUs));
    EXPECT_EQ("$X\n", desk.sent());
    desk.controller("[MSG:Caution: Unlocked]\nok\n");
    ASSERT_TRUE(desk.raise());
    EXPECT_EQ(WISH_LEVEL, desk.m_interlock.unlock(desk.m_s64NowUs));
}

TEST(InterlockLevel, EachRaisedLevelEndsWithoutThePortOnly)
{
    InterlockDesk desk(KESTREL);
    desk.home();

    desk.pass(600000); // nobody does anything for ten minutes

    EXPECT_EQ(LEVEL_MOTION, desk.m_interlock.getLevel());
    EXPECT_EQ("", desk.sent());
}
