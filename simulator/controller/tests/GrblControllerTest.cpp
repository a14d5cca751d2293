// Greeting, answers, resets and commands of the virtual controller in Grbl 1.1.
#include <string>

#include <gtest/gtest.h>

#include "GrblDialogue.h"

class GrblControllerDialogue : public GrblDialogue
{
};

TEST_F(GrblControllerDialogue, GreetsAndReportsAtRest)
{
    m_controller.reset(m_s64Now);

    EXPECT_EQ("\r\nGrbl 1.1h ['$' for help]\r\n", wait(100 * MS));
    EXPECT_EQ("<Idle|MPos:0.000,0.000,0.000|FS:0,0|WCO:0.000,0.000,0.000>\r\n", say("?"));
    EXPECT_EQ("<Idle|MPos:0.000,0.000,0.000|FS:0,0|Ov:100,100,100>\r\n", say("?"));
    EXPECT_EQ("<Idle|MPos:0.000,0.000,0.000|FS:0,0>\r\n", say("?"));
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

TEST_F(GrblControllerDialogue, ReportHasWhatTheMaskAsksFor)
{
    say("G92 X5\n$10=2\n");

    const std::string strReport = say("?");

    EXPECT_EQ("<Idle|WPos:5.000,0.000,0.000|Bf:15,128|FS:0,0|WCO:-5.000,0.000,0.000>\r\n",
              strReport);
}

TEST_F(GrblControllerDialogue, FaultsHitTheirLines)
{
    EXPECT_TRUE(m_controller.runCommand("refuse 7", m_s64Now));
    EXPECT_EQ("error:7\r\n", say("G0 X1\n"));
    EXPECT_TRUE(m_controller.runCommand("no-answer", m_s64Now));
    EXPECT_EQ("", say("G21\n"));
    EXPECT_TRUE(m_controller.runCommand("alarm-now 1", m_s64Now));
    EXPECT_EQ("ALARM:1\r\n[MSG:Reset to continue]\r\n", wait(20 * MS));
    EXPECT_TRUE(m_controller.runCommand("mute", m_s64Now));
    EXPECT_EQ("", say("?"));
    EXPECT_TRUE(m_controller.runCommand("unmute", m_s64Now));
    EXPECT_TRUE(m_controller.runCommand("restart", m_s64Now));
    EXPECT_TRUE(contains(wait(100 * MS), "Grbl 1.1h"));
}
