// States, holds and the laser of the virtual controller in Grbl 1.1. The times are those of the
// real firmware, with what the model may be off.
#include <string>

#include <gtest/gtest.h>

#include "GrblDialogue.h"

class GrblMachineDialogue : public GrblDialogue
{
};

TEST_F(GrblMachineDialogue, HoldAtTenMillimetresPerSquareSecond)
{
    burn("M3", 10);
    send("!");
    wait(100 * MS);
    EXPECT_TRUE(contains(say("?"), "<Hold:1|"));
    send("~"); // dropped

    wait(2000 * MS);

    const int64_t s64Hold = m_s64Now - 2110 * MS;
    EXPECT_NEAR(0.538, stillAfter(s64Hold), 0.02);
    EXPECT_NEAR(0.565, darkAfter(s64Hold), 0.02);
    EXPECT_TRUE(contains(say("?"), "<Hold:0|"));
    EXPECT_EQ("", say("G21\n"));
    EXPECT_EQ("[MSG:Restoring spindle]\r\nok\r\n", say("~"));
    EXPECT_TRUE(beam().bOn && beam().bMoving);
}

TEST_F(GrblMachineDialogue, HoldTimes)
{
    struct Row
    {
        const char* pLaser;
        double dAcceleration;
        char cByte;
        double dDark;
        double dStill;
    };
    const Row ROWS[] = {{"M3", 500, '!', 0.08, 0.055},  {"M4", 500, '!', 0.040, 0.049},
                        {"M4", 10, '!', 0.517, 0.539},  {"M3", 10, '\x84', 0.55, 0.52},
                        {"M4", 10, '\x84', 0.50, 0.52}, {"M3", 10, '\x18', 0.0004, 0},
                        {"M4", 500, '\x18', 0.0004, 0}};
    for (const Row& row : ROWS) {
        m_controller.reset(m_s64Now);
        wait(100 * MS);
        burn(row.pLaser, row.dAcceleration);
        const int64_t s64Start = m_s64Now;
        send(std::string(1, row.cByte));

        wait(2000 * MS);

        const double dOff = ('\x18' == row.cByte) ? 0.001 : 0.025;
        EXPECT_NEAR(row.dDark, darkAfter(s64Start), dOff) << row.pLaser << row.dAcceleration;
        EXPECT_NEAR(row.dStill, stillAfter(s64Start), dOff) << row.pLaser << row.dAcceleration;
        EXPECT_FALSE(beam().bOn);
    }
}

TEST_F(GrblMachineDialogue, LaserOffInTheStreamComesBehindAllMotion)
{
    for (const char* const pLaser : {"M3", "M4"}) {
        m_controller.reset(m_s64Now);
        wait(100 * MS);
        prepare(10);
        const int64_t s64Start = m_s64Now;
        say(std::string(pLaser) + " S500\nG1 X5 F300\nM5\n");

        wait(4000 * MS);

        EXPECT_FALSE(beam().bOn);
        const double dLag = darkAfter(s64Start) - stillAfter(s64Start);
        EXPECT_NEAR(('3' == pLaser[1]) ? 0.026 : -0.038, dLag, 0.012) << pLaser;
    }
}

TEST_F(GrblMachineDialogue, SilentSenderLeavesConstantPowerOn)
{
    burn("M3", 10);
    m_controller.dropWire(); // nor does a closed port change it

    wait(60000 * MS);

    EXPECT_TRUE(beam().bOn);
    EXPECT_FALSE(beam().bMoving);
    const int64_t s64Hold = m_s64Now;
    say("!");
    EXPECT_FALSE(beam().bOn);
    EXPECT_NEAR(0.003, darkAfter(s64Hold), 0.004);
}

TEST_F(GrblMachineDialogue, SilentSenderEndsDynamicPowerWithTheMotion)
{
    burn("M4", 10);

    wait(60000 * MS);

    EXPECT_FALSE(beam().bOn);
    EXPECT_NEAR(-0.038, darkAfter(0) - stillAfter(0), 0.012);
}

TEST_F(GrblMachineDialogue, WithoutLaserModeHoldKeepsTheBeam)
{
    for (const char* const pLaser : {"M3", "M4"}) {
        m_controller.reset(m_s64Now);
        wait(100 * MS);
        say(std::string(pLaser) + " S500\nG1 X100 F300\n");
        wait(2000 * MS);
        send("!");

        wait(2000 * MS);

        EXPECT_TRUE(beam().bOn) << pLaser;
        EXPECT_FALSE(beam().bMoving);
        EXPECT_EQ("ok\r\n", say("~\n")); // the line end is a line of its own
    }
}

TEST_F(GrblMachineDialogue, ConstantPowerIsOnAsSoonAsACuttingMotionIsModal)
{
    prepare(10);
    say("M3 S500\n");
    EXPECT_FALSE(beam().bOn);
    say("G0 X1\n");
    EXPECT_FALSE(beam().bOn);
    wait(3000 * MS);

    say("G1 F300\n");
    EXPECT_TRUE(beam().bOn);
    EXPECT_FALSE(beam().bMoving);

    say("G0\n");
    EXPECT_FALSE(beam().bOn);
}

TEST_F(GrblMachineDialogue, DynamicPowerIsOffAtRest)
{
    prepare(10);

    say("M4 S500\nG1 F300\n");
    EXPECT_FALSE(beam().bOn);
    say("X10\n", 100 * MS);
    EXPECT_TRUE(beam().bOn);
    const std::string strReport = say("?");
    EXPECT_TRUE(contains(strReport, "|FS:6") && contains(strReport, ",1")) << strReport;
}

TEST_F(GrblMachineDialogue, PowerChangesInMotionWithoutAStop)
{
    prepare(10);
    say("M3 S100\nG1 X10 F300\nX20 S900\n");
    wait(1000 * MS);
    EXPECT_DOUBLE_EQ(100, beam().dPower);

    wait(1500 * MS);

    EXPECT_DOUBLE_EQ(900, beam().dPower);
    EXPECT_TRUE(beam().bOn && beam().bMoving);
    EXPECT_TRUE(contains(say("?"), "|FS:300,900"));
}

TEST_F(GrblMachineDialogue, DoorStopsWithTheBeamOffAndGoesOn)
{
    burn("M3", 500);
    say("\x84", 20 * MS);
    EXPECT_TRUE(contains(say("?"), "<Door:2|"));
    wait(500 * MS);
    EXPECT_TRUE(contains(say("?"), "<Door:0|"));
    EXPECT_FALSE(beam().bOn);

    say("~");

    EXPECT_TRUE(beam().bOn && beam().bMoving);
}

TEST_F(GrblMachineDialogue, SoftLimitsAreAnAlarmThatOnlyAResetEnds)
{
    EXPECT_TRUE(m_controller.preset(22, 1));
    EXPECT_TRUE(m_controller.preset(20, 1));
    wait(100 * MS);
    say("$X\n");

    EXPECT_EQ("error:15\r\n", say("$J=X10 F100\n"));
    EXPECT_EQ("ALARM:2\r\n[MSG:Reset to continue]\r\n", say("G0 X10\n", 50 * MS));
    EXPECT_EQ("", say("$X\n"));
    EXPECT_TRUE(contains(say("\x18", 1000 * MS), "Grbl 1.1h"));
    EXPECT_EQ("[MSG:Caution: Unlocked]\r\nok\r\n", say("$X\n"));
}

TEST_F(GrblMachineDialogue, CoolantIsThePilotSpot)
{
    EXPECT_FALSE(m_controller.isPilotOn());
    say("M8\n");
    EXPECT_TRUE(m_controller.isPilotOn());
    EXPECT_FALSE(beam().bOn);
    say("M9\n");
    EXPECT_FALSE(m_controller.isPilotOn());
}

TEST_F(GrblMachineDialogue, DynamicPowerBurnsAllOfItsWayAlikeAndConstantPowerMoreWhereItIsSlow)
{
    prepare(10); // 5 mm/s are reached after 1.25 mm, and at the other end the same
    double dSlow = 0;
    double dFast = 0;
    double dDark = 0;
    m_controller.onBeam([&](const BeamStroke& stroke) {
        const double dMiddle = (stroke.from[0] + stroke.to[0]) / 2;
        dSlow += (dMiddle < 1) ? stroke.dEnergy : 0;
        dFast += (dMiddle > 5 && dMiddle < 6) ? stroke.dEnergy : 0;
        dDark += (stroke.from[1] > 0) ? stroke.dEnergy : 0;
    });

    const auto run = [this] {
        for (int i = 0; i < 4000; ++i) {
            wait(1 * MS);
        }
    };
    say("M4 S500\nG1 X10 F300\n");
    run();
    EXPECT_NEAR(500 / 5.0, dSlow, 2); // S500 for a fifth of a second
    EXPECT_NEAR(500 / 5.0, dFast, 2);

    say("G0 X0\n");
    run();
    dSlow = 0;
    say("M3 S500\nG1 X10\n");
    run();
    EXPECT_GT(dSlow, 180);                // twice as long, and the moment before it begins to move
    EXPECT_NEAR(2 * 500 / 5.0, dFast, 4); // as much as with M4

    say("G0 Y10\n");
    run();
    EXPECT_EQ(0, dDark);
}
