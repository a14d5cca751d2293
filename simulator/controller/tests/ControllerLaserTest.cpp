// The virtual controller's laser and pilot spot.
#include <gtest/gtest.h>

#include "Controller.h"
#include "ControllerDialogue.h"

namespace {

class ControllerLaserCareless : public ControllerDialogue
{
protected:
    ControllerLaserCareless() : ControllerDialogue(makeSettings()) {}

    static ControllerSettings makeSettings()
    {
        ControllerSettings settings;
        settings.bAlarmKeepsLaser = true;
        settings.bHoldKeepsLaser = true;
        settings.bResetLaserOn = true;
        settings.bPowerUpLaserOn = true;
        settings.bPilotOff = true;
        return settings;
    }
};

class ControllerLaser : public ControllerDialogue
{
};

class ControllerLaserIdle : public ControllerDialogue
{
protected:
    ControllerLaserIdle() : ControllerDialogue(makeSettings()) {}

    static ControllerSettings makeSettings()
    {
        ControllerSettings settings;
        settings.s64IdleOffUs = 3000 * MS;
        return settings;
    }
};

} // namespace

TEST_F(ControllerLaser, LaserAndPilotSpotAreTwoThings)
{
    EXPECT_TRUE(m_controller.isPilotOn());
    EXPECT_FALSE(beam().bOn);

    say("M18 S0\nM3 S100\n");
    EXPECT_FALSE(m_controller.isPilotOn());
    EXPECT_TRUE(beam().bOn);

    say("M18 S1\nM5\n");
    EXPECT_TRUE(m_controller.isPilotOn());
    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerLaser, LaserHasTheLastPowerAndIsDarkWithoutAny)
{
    say("M3\n");
    EXPECT_FALSE(beam().bOn);
    say("S100\n");
    EXPECT_TRUE(beam().bOn);
    say("M5\nM4\n");
    EXPECT_TRUE(beam().bOn);
    EXPECT_DOUBLE_EQ(100, beam().dPower);
    say("M3 S0\n");
    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerLaser, LaserWordsTakeEffectBehindQueuedMoves)
{
    say("G1 X10 F600\nM3 S100\nG1 X20\nM5\nG1 X30\n"); // a second each

    wait(999 * MS);
    EXPECT_FALSE(beam().bOn);
    wait(2 * MS);
    EXPECT_TRUE(beam().bOn);
    wait(998 * MS);
    EXPECT_TRUE(beam().bOn);
    wait(2 * MS);
    EXPECT_FALSE(beam().bOn);
    EXPECT_TRUE(beam().bMoving);
}

TEST_F(ControllerLaser, BeamIsToldWithTheMomentOfItsChange)
{
    say("M3 S100\nG1 X10 F600\nM5\n");

    wait(1500 * MS); // nobody looked at the end of the move, after a second

    EXPECT_EQ("on=0 power=100 moving=0 since=1.000000 moving-since=1.000000 now=1.500000",
              m_controller.getBeam().describe(m_s64Now));
}

TEST_F(ControllerLaser, LaserOffIsTakenWhileLocked)
{
    say("M3 S100\nG1 X\n");
    EXPECT_EQ("error:9\n|", say("G21\n"));

    EXPECT_EQ("ok\n|", say("M5\n"));

    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerLaser, HoldByteActsPastAFullQueueWithTheBeamOff)
{
    say("M3 S100\nG91\n");
    for (int i = 0; i < 40; ++i) {
        say("G1 X10 F600\n");
    }
    wait(500 * MS);

    say("G1 !X1"); // in the middle of a line, behind lines that wait

    EXPECT_FALSE(beam().bOn);
    EXPECT_FALSE(beam().bMoving);
    wait(1000 * MS);
    EXPECT_DOUBLE_EQ(5, m_controller.getMotion().getPosition()[0]);
    EXPECT_TRUE(runCommand("go"));
    wait(0);
    EXPECT_TRUE(beam().bOn && beam().bMoving); // as it was
}

TEST_F(ControllerLaser, HeldControllerKeepsLaserOffForItsPlace)
{
    say("M3 S100\nG1 X10 F600\n");
    wait(500 * MS);
    say("!");

    EXPECT_EQ("ok\n|", say("M5\n"));
    EXPECT_TRUE(runCommand("go"));

    wait(499 * MS);
    EXPECT_TRUE(beam().bOn);
    wait(1 * MS);
    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerLaser, RestartGreetsWithTheBeamOff)
{
    say("M3 S100\nG1 X10 F600\n");

    EXPECT_TRUE(runCommand("restart"));

    EXPECT_EQ("ready\n|", wait(0));
    EXPECT_FALSE(beam().bOn || beam().bMoving);
}

TEST_F(ControllerLaserCareless, LaserIsOnAtPowerUpAndAfterReset)
{
    wait(0);
    EXPECT_TRUE(beam().bOn);
    EXPECT_FALSE(m_controller.isPilotOn());
    say("M5\nM18 S1\n");

    m_controller.reset(m_s64Now);

    EXPECT_TRUE(beam().bOn);
    EXPECT_FALSE(m_controller.isPilotOn());
    say("\x18"); // always dark
    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerLaserCareless, HoldAndAlarmKeepTheLaser)
{
    say("M3 S100\nG1 X10 F600\n");
    say("!");
    EXPECT_TRUE(beam().bOn);
    EXPECT_FALSE(beam().bMoving);

    EXPECT_TRUE(runCommand("alarm-now 1"));

    EXPECT_TRUE(beam().bOn);
}

TEST_F(ControllerLaser, WhatTheBeamGoesOverIsToldButInAHold)
{
    double dEnergy = 0;
    m_controller.onBeam([&dEnergy](const BeamStroke& stroke) { dEnergy += stroke.dEnergy; });
    say("M3 S100\nG1 X10 F600\n");
    wait(500 * MS);
    say("!");
    wait(1000 * MS);
    EXPECT_DOUBLE_EQ(50, dEnergy);

    EXPECT_TRUE(runCommand("go"));
    wait(500 * MS);
    say("M5\n");
    wait(1000 * MS);

    EXPECT_DOUBLE_EQ(100, dEnergy);
}

TEST_F(ControllerLaserCareless, HoldThatKeepsTheLaserBurnsOn)
{
    double dEnergy = 0;
    say("M3 S100\nG1 X10 F600\n");
    m_controller.onBeam([&dEnergy](const BeamStroke& stroke) { dEnergy += stroke.dEnergy; });
    say("!");

    wait(1000 * MS);

    EXPECT_DOUBLE_EQ(100, dEnergy);
}

TEST_F(ControllerLaserIdle, LaserGoesOffWhenTheArmRestsAndNothingIsHeard)
{
    say("M3 S100\nG1 X10 F600\n"); // a second
    wait(1000 * MS);
    EXPECT_EQ(3000 * MS, m_controller.nextDueUs(m_s64Now) - m_s64Now);
    wait(2999 * MS);
    EXPECT_TRUE(beam().bOn);

    EXPECT_EQ("", wait(1 * MS)) << "it says nothing of it";

    EXPECT_FALSE(beam().bOn);
    say("M3\n");
    EXPECT_TRUE(beam().bOn) << "it is not locked";
}

TEST_F(ControllerLaserIdle, BytesKeepItOn)
{
    say("M3 S100\n");
    wait(2999 * MS);
    say("G");
    wait(2999 * MS);

    EXPECT_TRUE(beam().bOn);
    EXPECT_EQ(1 * MS, m_controller.nextDueUs(m_s64Now) - m_s64Now);
}

TEST_F(ControllerLaserIdle, NothingIsDueInTheDark)
{
    say("G21\n");

    EXPECT_EQ(-1, m_controller.nextDueUs(m_s64Now));
}

TEST_F(ControllerLaser, DarknessDoesNotComeByItself)
{
    say("M3 S100\n");
    wait(3600 * 1000 * MS);

    EXPECT_TRUE(beam().bOn);
}
