// The virtual controller in Grbl 1.1 by a clock of the test's own. The times are those of the real
// firmware, with what the model may be off.
#include "GrblController.h"

#include <cmath>
#include <string>

#include <gtest/gtest.h>

namespace {

const int64_t MS = 1000;

class GrblControllerDialogue : public testing::Test
{
protected:
    GrblControllerDialogue() : m_controller({}, m_wireLog)
    {
        m_controller.setTrigger([this](const std::string& strInstruction) {
            EXPECT_TRUE(m_controller.instruct(strInstruction, m_s64Now));
        });
    }

    /** Power-up over, greeting read. */
    void SetUp() override
    {
        wait(100 * MS);
    }

    std::string wait(int64_t s64Us)
    {
        m_s64Now += s64Us;
        m_controller.advance(m_s64Now);
        std::string strAll;
        for (std::string strText; m_controller.takeAnswer(m_s64Now, strText);) {
            strAll += strText;
        }
        return strAll;
    }

    void send(const std::string& strBytes)
    {
        m_controller.receive(strBytes, m_s64Now);
    }

    /** Send, and hear what comes within so long. */
    std::string say(const std::string& strBytes, int64_t s64Us = 10 * MS)
    {
        send(strBytes);
        return wait(s64Us);
    }

    /** Laser mode, 300 mm/min of 5 mm/s and the given acceleration. */
    void prepare(double dAcceleration)
    {
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(m_controller.preset(120 + i, dAcceleration));
        }
        ASSERT_TRUE(m_controller.preset(32, 1));
        wait(100 * MS);
    }

    /** The head at 5 mm/s in mid-way with the laser on. */
    void burn(const char* pLaser, double dAcceleration)
    {
        prepare(dAcceleration);
        say(std::string(pLaser) + " S500\nG1 X100 F300\n");
        wait(3000 * MS);
        ASSERT_TRUE(beam().bOn && beam().bMoving);
    }

    const Beam& beam() const
    {
        return m_controller.getBeam().get();
    }

    /** Seconds from s64FromUs until the beam was off. */
    double darkAfter(int64_t s64FromUs)
    {
        return changeAfter(" since=", s64FromUs);
    }

    double stillAfter(int64_t s64FromUs)
    {
        return changeAfter("moving-since=", s64FromUs);
    }

    double changeAfter(const std::string& strField, int64_t s64FromUs)
    {
        const std::string strBeam = m_controller.getBeam().describe(m_s64Now);
        const size_t uPos = strBeam.find(strField);
        return strtod(strBeam.c_str() + uPos + strField.size(), nullptr) -
               static_cast<double>(s64FromUs) / 1e6;
    }

    double x() const
    {
        return m_controller.getPosition()[0];
    }

    int64_t m_s64Now = 0;
    WireLog m_wireLog;
    GrblController m_controller;
};

size_t count(const std::string& strText, const std::string& strPart)
{
    size_t uCount = 0;
    for (size_t uPos = strText.find(strPart); std::string::npos != uPos;
         uPos = strText.find(strPart, uPos + 1)) {
        ++uCount;
    }
    return uCount;
}

bool contains(const std::string& strText, const std::string& strPart)
{
    return std::string::npos != strText.find(strPart);
}

} // namespace

TEST_F(GrblControllerDialogue, GreetsAndReportsAtRest)
{
    m_controller.reset(m_s64Now);

    EXPECT_EQ("\r\nGrbl 1.1h ['$' for help]\r\n", wait(100 * MS));
    EXPECT_EQ("<Idle|MPos:0.000,0.000,0.000|FS:0,0|WCO:0.000,0.000,0.000>\r\n", say("?"));
    EXPECT_EQ("<Idle|MPos:0.000,0.000,0.000|FS:0,0|Ov:100,100,100>\r\n", say("?"));
    EXPECT_EQ("<Idle|MPos:0.000,0.000,0.000|FS:0,0>\r\n", say("?"));
}

TEST_F(GrblControllerDialogue, EmptyAndCommentLinesAreAcknowledged)
{
    EXPECT_EQ("ok\r\n", say("\n"));
    EXPECT_EQ("ok\r\n", say("  \n"));
    EXPECT_EQ("ok\r\n", say("(a comment)\n"));
    EXPECT_EQ("ok\r\n", say("; a comment\n"));
    EXPECT_EQ("ok\r\nok\r\n", say("G21\r\n"));
}

TEST_F(GrblControllerDialogue, RefusedLinesSayWhy)
{
    EXPECT_EQ("error:1\r\n", say("1\n"));
    EXPECT_EQ("error:2\r\n", say("HELLO\n"));
    EXPECT_EQ("error:2\r\n", say("G1 X\n"));
    EXPECT_EQ("error:3\r\n", say("$1\n"));
    EXPECT_EQ("error:3\r\n", say("$FOO\n"));
    EXPECT_EQ("error:5\r\n", say("$H\n"));
    EXPECT_EQ("error:20\r\n", say("G99\n"));
    EXPECT_EQ("error:22\r\n", say("G1 X1\n"));
    EXPECT_EQ("error:4\r\n", say("F-1\n"));
    EXPECT_EQ("error:21\r\n", say("G0 G1 X1\n"));
    EXPECT_EQ("error:25\r\n", say("G0 X1 X2\n"));
    EXPECT_EQ("error:36\r\n", say("G0 X1 R5\n"));
    EXPECT_EQ("error:28\r\n", say("G4\n"));
    EXPECT_EQ("error:35\r\n", say("G2 X1 F100\n"));
    EXPECT_EQ("error:33\r\n", say("G2 X1 I5 F100\n"));
    EXPECT_EQ("error:34\r\n", say("G2 X10 R1 F100\n"));
}

TEST_F(GrblControllerDialogue, LineOf79SignificantCharactersIsTheLongest)
{
    const std::string strLine = "G1X1F100" + std::string(71, '0');
    ASSERT_EQ(79U, strLine.size());

    EXPECT_EQ("ok\r\n", say("( a comment ) " + strLine + " \n"));
    EXPECT_EQ("error:11\r\n", say(strLine + "0\n"));
    EXPECT_EQ("error:11\r\n", say(strLine + strLine.substr(0, 30) + "\n"));
    EXPECT_EQ("ok\r\n", say("G21\n"));
}

TEST_F(GrblControllerDialogue, RefusedLineDoesNothing)
{
    EXPECT_EQ("error:36\r\n", say("G91 M3 S500 F100 G1 X5 R1\n"));

    wait(1000 * MS);
    EXPECT_DOUBLE_EQ(0, x());
    EXPECT_EQ("[GC:G0 G54 G17 G21 G90 G94 M5 M9 T0 F0 S0]\r\nok\r\n", say("$G\n"));
}

TEST_F(GrblControllerDialogue, OverflowIsSilentAndRealtimeBytesPassIt)
{
    say("G4 P1\n");
    for (int i = 0; i < 40; ++i) {
        send("G0X1\n"); // 200 bytes for 128: 25 lines and "G0X"
    }

    EXPECT_TRUE(contains(say("?"), "<Idle|"));
    const std::string strAnswers = wait(60000 * MS);

    EXPECT_EQ(1U + 25, count(strAnswers, "ok\r\n")); // the dwell's among them
    EXPECT_EQ(0U, count(strAnswers, "error"));
    EXPECT_EQ("error:2\r\n", say("G21\n")); // is "G0XG21"
}

TEST_F(GrblControllerDialogue, AnswerTimes)
{
    send("G21\n");
    EXPECT_EQ("", wait(2 * MS));
    EXPECT_EQ("ok\r\n", wait(3 * MS)); // 4 ms
    send("?");
    EXPECT_EQ("", wait(3 * MS));
    EXPECT_TRUE(contains(wait(5 * MS), "<Idle")); // 5 ms
    send("$$\n");
    EXPECT_EQ("", wait(28 * MS));
    const std::string strSettings = wait(8 * MS); // 32 ms
    EXPECT_EQ(34U, count(strSettings, "$"));
    EXPECT_NEAR(346, static_cast<double>(strSettings.size()), 60); // values have other lengths
}

TEST_F(GrblControllerDialogue, OkMeansQueued)
{
    prepare(10);
    say("G91 G1 F300\n");
    std::string strAnswers;
    for (int i = 0; i < 30; ++i) {
        strAnswers += say("X1\n", 1);
    }
    strAnswers += wait(20 * MS);

    EXPECT_EQ(16U, count(strAnswers, "ok"));
    EXPECT_LT(x(), 0.1);
    wait(60000 * MS);
    EXPECT_NEAR(30, x(), 1e-6);
}

TEST_F(GrblControllerDialogue, HoldAtTenMillimetresPerSquareSecond)
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

TEST_F(GrblControllerDialogue, HoldTimes)
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

TEST_F(GrblControllerDialogue, LaserOffInTheStreamComesBehindAllMotion)
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

TEST_F(GrblControllerDialogue, SilentSenderLeavesConstantPowerOn)
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

TEST_F(GrblControllerDialogue, SilentSenderEndsDynamicPowerWithTheMotion)
{
    burn("M4", 10);

    wait(60000 * MS);

    EXPECT_FALSE(beam().bOn);
    EXPECT_NEAR(-0.038, darkAfter(0) - stillAfter(0), 0.012);
}

TEST_F(GrblControllerDialogue, WithoutLaserModeHoldKeepsTheBeam)
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

TEST_F(GrblControllerDialogue, ConstantPowerIsOnAsSoonAsACuttingMotionIsModal)
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

TEST_F(GrblControllerDialogue, DynamicPowerIsOffAtRest)
{
    prepare(10);

    say("M4 S500\nG1 F300\n");
    EXPECT_FALSE(beam().bOn);
    say("X10\n", 100 * MS);
    EXPECT_TRUE(beam().bOn);
    const std::string strReport = say("?");
    EXPECT_TRUE(contains(strReport, "|FS:6") && contains(strReport, ",1")) << strReport;
}

TEST_F(GrblControllerDialogue, PowerChangesInMotionWithoutAStop)
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

TEST_F(GrblControllerDialogue, ResetAtRestGreetsAndKeepsThePosition)
{
    say("G0 X5\n");
    wait(5000 * MS);

    send("\x18");
    EXPECT_EQ("", wait(29 * MS));
    EXPECT_EQ("\r\nGrbl 1.1h ['$' for help]\r\n", wait(10 * MS));

    EXPECT_TRUE(contains(say("?"), "<Idle|MPos:5.000,"));
}

TEST_F(GrblControllerDialogue, ResetInMotionIsAnAlarmAndLocks)
{
    burn("M3", 10);
    send("\x18");
    EXPECT_FALSE(beam().bOn || beam().bMoving);
    EXPECT_EQ("ALARM:3\r\n", wait(100 * MS));
    EXPECT_EQ("", wait(400 * MS));
    EXPECT_EQ("\r\nGrbl 1.1h ['$' for help]\r\n[MSG:'$H'|'$X' to unlock]\r\n", wait(100 * MS));

    EXPECT_TRUE(contains(say("?"), "<Alarm|"));
    EXPECT_EQ("error:9\r\n", say("G0 X1\n"));
    EXPECT_EQ("error:9\r\n", say("M5\n"));
    EXPECT_EQ("[MSG:Caution: Unlocked]\r\nok\r\n", say("$X\n"));
    EXPECT_EQ("ok\r\n", say("G0 X1\n"));
}

TEST_F(GrblControllerDialogue, LocksAtPowerUpWhereHomingIsOn)
{
    EXPECT_TRUE(m_controller.preset(22, 1));
    m_controller.reset(m_s64Now);
    EXPECT_EQ("\r\nGrbl 1.1h ['$' for help]\r\n[MSG:'$H'|'$X' to unlock]\r\n", wait(100 * MS));
    EXPECT_EQ("error:9\r\n", say("G0 X1\n"));

    EXPECT_EQ("", say("$H\n", 1000 * MS));
    EXPECT_EQ("", say("?")); // not told while it homes
    EXPECT_EQ("ok\r\n", wait(60000 * MS));

    EXPECT_TRUE(contains(say("?"), "<Idle|MPos:-1.000,-1.000,-1.000|"));
    EXPECT_TRUE(contains(m_controller.describe(), " homed=1"));
    EXPECT_DOUBLE_EQ(-1, x());
}

TEST_F(GrblControllerDialogue, ResetWhileHomingIsAnAlarm)
{
    EXPECT_TRUE(m_controller.preset(22, 1));
    wait(100 * MS);
    say("$H\n", 500 * MS);

    EXPECT_EQ("ALARM:6\r\n", say("\x18", 100 * MS));
    EXPECT_TRUE(contains(wait(1000 * MS), "to unlock]"));
}

TEST_F(GrblControllerDialogue, RealtimeBytesActInComments)
{
    burn("M3", 500);

    send("(oh no!");
    wait(500 * MS);

    EXPECT_FALSE(beam().bOn || beam().bMoving);
    EXPECT_TRUE(contains(say("is it held?)\n"), "<Hold:0|"));
}

TEST_F(GrblControllerDialogue, OverridesActAndForeignBytesAreDropped)
{
    say("?");
    say("?");
    EXPECT_EQ("", say("\xc2\x91\xff\x80"));
    EXPECT_TRUE(contains(say("?"), "|Ov:110,100,100"));
    say("\x92\x92\x94\x97\x9b");
    EXPECT_TRUE(contains(say("?"), "|Ov:89,25,90"));
    say("\x90\x95\x99");
    EXPECT_TRUE(contains(say("?"), "|Ov:100,100,100"));
    EXPECT_EQ("ok\r\n", say("G2\xc2\x91"
                            "1\n"));
}

TEST_F(GrblControllerDialogue, FeedOverrideChangesTheSpeedAndSpindleOverrideThePower)
{
    burn("M3", 500);

    say("\x91\x9a", 500 * MS);

    EXPECT_TRUE(contains(say("?"), "|FS:330,550"));
}

TEST_F(GrblControllerDialogue, DoorStopsWithTheBeamOffAndGoesOn)
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

TEST_F(GrblControllerDialogue, JogIsAStateOfItsOwnAndCanBeCancelled)
{
    EXPECT_EQ("error:22\r\n", say("$J=G91 X10\n"));
    EXPECT_EQ("error:16\r\n", say("$J=G1 X10 F100\n"));
    EXPECT_EQ("ok\r\n", say("$J=G91 X50 F300\n"));
    EXPECT_TRUE(contains(say("?"), "<Jog|"));
    EXPECT_EQ("error:9\r\n", say("G0 X1\n"));
    wait(1000 * MS);

    say("\x85", 1000 * MS);

    EXPECT_TRUE(contains(say("?"), "<Idle|"));
    EXPECT_GT(x(), 1);
    EXPECT_LT(x(), 20);
    EXPECT_TRUE(contains(say("$G\n"), "G90")); // nothing modal was touched
}

TEST_F(GrblControllerDialogue, SoftLimitsAreAnAlarmThatOnlyAResetEnds)
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

TEST_F(GrblControllerDialogue, SettingsAreCheckedAndKept)
{
    EXPECT_EQ("ok\r\n", say("$110=600.5\n"));
    EXPECT_EQ("error:3\r\n", say("$99=1\n"));
    EXPECT_EQ("error:4\r\n", say("$110=-1\n"));
    EXPECT_EQ("error:2\r\n", say("$110=x\n"));
    EXPECT_EQ("error:6\r\n", say("$0=2\n"));
    EXPECT_EQ("error:10\r\n", say("$20=1\n"));
    say("\x18", 100 * MS);
    EXPECT_TRUE(contains(say("$$\n", 50 * MS), "$110=600.500\r\n"));
    say("G1 X100 F100\n");
    EXPECT_EQ("error:8\r\n", say("$110=500\n"));
    EXPECT_EQ("error:8\r\n", say("$$\n"));
}

TEST_F(GrblControllerDialogue, DollarLines)
{
    EXPECT_EQ("[VER:1.1h.20190830:]\r\n[OPT:V,15,128]\r\nok\r\n", say("$I\n"));
    EXPECT_EQ("$N0=\r\n$N1=\r\nok\r\n", say("$N\n"));
    EXPECT_EQ("ok\r\n", say("$N0=G91\n"));
    EXPECT_EQ("\r\nGrbl 1.1h ['$' for help]\r\n>G91:ok\r\n", say("\x18", 100 * MS));
    EXPECT_TRUE(contains(say("$G\n"), " G91 "));
    say("G90\n");
    EXPECT_EQ("ok\r\n", say("G10 L2 P1 X5\n"));
    EXPECT_TRUE(contains(say("$#\n", 50 * MS), "[G54:5.000,0.000,0.000]\r\n[G55:0.000"));
    EXPECT_TRUE(contains(say("?"), "|WCO:5.000,0.000,0.000"));
    EXPECT_EQ("[MSG:Enabled]\r\nok\r\n", say("$C\n"));
    EXPECT_EQ("ok\r\n", say("G0 X100\n"));
    EXPECT_TRUE(contains(say("?"), "<Check|MPos:0.000"));
    EXPECT_EQ("[MSG:Disabled]\r\nok\r\n", say("$C\n", 20 * MS));
    EXPECT_TRUE(contains(wait(100 * MS), "Grbl 1.1h"));
}

TEST_F(GrblControllerDialogue, ReportHasWhatTheMaskAsksFor)
{
    say("G92 X5\n$10=2\n");

    const std::string strReport = say("?");

    EXPECT_EQ("<Idle|WPos:5.000,0.000,0.000|Bf:15,128|FS:0,0|WCO:-5.000,0.000,0.000>\r\n",
              strReport);
}

TEST_F(GrblControllerDialogue, CoolantIsThePilotSpot)
{
    EXPECT_FALSE(m_controller.isPilotOn());
    say("M8\n");
    EXPECT_TRUE(m_controller.isPilotOn());
    EXPECT_FALSE(beam().bOn);
    say("M9\n");
    EXPECT_FALSE(m_controller.isPilotOn());
}

TEST_F(GrblControllerDialogue, PausedProgramGoesOnAndEndedProgramIsDark)
{
    prepare(500);
    say("M3 S500\nG1 X1 F300\nM0\nX2\nM2\n");
    wait(2000 * MS);
    EXPECT_TRUE(contains(say("?"), "<Hold:0|"));
    EXPECT_FALSE(beam().bOn);

    EXPECT_TRUE(contains(say("~", 2000 * MS), "[MSG:Pgm End]"));

    EXPECT_FALSE(beam().bOn);
    EXPECT_TRUE(contains(say("$G\n"), "M5"));
}

TEST_F(GrblControllerDialogue, ArcEndsWhereItShouldOnItsCircle)
{
    prepare(500);
    say("G2 X10 Y10 I10 F3000\n", 1);
    wait(20 * MS);
    while (beam().bMoving) {
        wait(20 * MS);
        const Point at = m_controller.getPosition();
        EXPECT_NEAR(10, std::hypot(at[0] - 10, at[1]), 0.01);
    }

    EXPECT_NEAR(10, m_controller.getPosition()[0], 1e-6);
    EXPECT_NEAR(10, m_controller.getPosition()[1], 1e-6);
}

TEST_F(GrblControllerDialogue, FaultsHitTheirLines)
{
    EXPECT_TRUE(m_controller.instruct("refuse 7", m_s64Now));
    EXPECT_EQ("error:7\r\n", say("G0 X1\n"));
    EXPECT_TRUE(m_controller.instruct("no-answer", m_s64Now));
    EXPECT_EQ("", say("G21\n"));
    EXPECT_TRUE(m_controller.instruct("alarm-now 1", m_s64Now));
    EXPECT_EQ("ALARM:1\r\n[MSG:Reset to continue]\r\n", wait(20 * MS));
    EXPECT_TRUE(m_controller.instruct("mute", m_s64Now));
    EXPECT_EQ("", say("?"));
    EXPECT_TRUE(m_controller.instruct("unmute", m_s64Now));
    EXPECT_TRUE(m_controller.instruct("restart", m_s64Now));
    EXPECT_TRUE(contains(wait(100 * MS), "Grbl 1.1h"));
}
