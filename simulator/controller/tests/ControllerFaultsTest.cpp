// The virtual controller told to misbehave.
#include <string>

#include <gtest/gtest.h>

#include "Controller.h"
#include "ControllerDialogue.h"

namespace {

class ControllerFaults : public ControllerDialogue
{
};

} // namespace

TEST_F(ControllerFaults, MutedControllerSaysNothingButWorks)
{
    EXPECT_TRUE(runCommand("mute"));
    EXPECT_EQ("", say("M3 S100\nG21\n"));
    EXPECT_TRUE(runCommand("unmute"));

    EXPECT_EQ("ok\n|", say("G21\n")); // what was lost stays lost
    EXPECT_TRUE(beam().bOn);
}

TEST_F(ControllerFaults, AlarmOfItsOwnComesUnasked)
{
    say("M3 S100\nG1 X10 F600\n");
    wait(500 * MS);

    EXPECT_TRUE(runCommand("alarm-now 2"));

    EXPECT_EQ("alarm:2\n|", wait(0));
    EXPECT_FALSE(beam().bOn || beam().bMoving);
    EXPECT_EQ("error:9\n|", say("G21\n"));
}

TEST_F(ControllerFaults, FaultsChangeTheAnswer)
{
    EXPECT_TRUE(runCommand("no-answer"));
    EXPECT_EQ("", say("G21\n"));
    EXPECT_TRUE(runCommand("half"));
    EXPECT_EQ("o|", say("G21\n"));
    EXPECT_TRUE(runCommand("double"));
    EXPECT_EQ("ok\n|ok\n|", say("G21\n"));
    EXPECT_TRUE(runCommand("refuse 5"));
    EXPECT_EQ("error:5\n|", say("G21\n"));
    EXPECT_TRUE(runCommand("status 2"));
    EXPECT_EQ("status:2\nok\n|", say("G21\n"));
    EXPECT_TRUE(runCommand("say hello\\n"));
    EXPECT_EQ("hello\n|", wait(0));

    EXPECT_EQ("ok\n|", say("G21\n"));
}

TEST_F(ControllerFaults, GarbageFillsAReplyBufferAndIsNoAcknowledgement)
{
    EXPECT_TRUE(runCommand("garbage"));

    const std::string strAnswer = say("G21\n");

    EXPECT_EQ(64U + 1, strAnswer.size());
    EXPECT_NE(std::string::npos, strAnswer.find('\xff'));
    EXPECT_EQ(std::string::npos, strAnswer.find("ok\n"));
}

TEST_F(ControllerFaults, LateAnswerKeepsItsPlaceInLine)
{
    EXPECT_TRUE(runCommand("late 300"));

    EXPECT_EQ("", say("G77\n"));
    EXPECT_EQ("", say("G21\n"));
    EXPECT_EQ("", wait(299 * MS));
    EXPECT_EQ("error:1\n|ok\n|", wait(1 * MS));
}

TEST_F(ControllerFaults, FaultsAreUsedUpInOrder)
{
    EXPECT_TRUE(runCommand("refuse 5 2"));
    EXPECT_TRUE(runCommand("half"));

    EXPECT_EQ("error:5\n|", say("G21\n"));
    EXPECT_EQ("error:5\n|", say("G21\n"));
    EXPECT_EQ("o|", say("G21\n"));
    EXPECT_EQ("ok\n|", say("G21\n"));
}

TEST_F(ControllerFaults, RefusedLineIsNotCarriedOut)
{
    EXPECT_TRUE(runCommand("refuse 5"));

    say("G1 X1\n");

    EXPECT_TRUE(m_controller.getMotion().isIdle());
}

TEST_F(ControllerFaults, AlarmStopsTheArmAndLocks)
{
    say("G1 X100 F6000\n");
    wait(500 * MS);
    say("M3 S100\n");
    EXPECT_TRUE(runCommand("alarm 1"));

    EXPECT_EQ("alarm:1\n|", say("G1 X1\n"));
    EXPECT_FALSE(beam().bOn);
    EXPECT_EQ("error:9\n|", say("G1 X1\n"));
    wait(1000 * MS);
    EXPECT_DOUBLE_EQ(50, m_controller.getMotion().getPosition()[0]);
    EXPECT_EQ("ok\n|", say("$X\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerFaults, TriggerComesWithItsLine)
{
    m_controller.addTrigger(2, "refuse 5");

    EXPECT_EQ("ok\n|error:5\n|ok\n|", say("G21\nG21\nG21\n"));
}

TEST_F(ControllerFaults, LineOnWhichTheCableIsPulledIsLost)
{
    m_controller.addTrigger(2, "unplug");

    EXPECT_EQ("", say("G21\nG1 X1\n"));

    EXPECT_TRUE(m_controller.getMotion().isIdle());
}

TEST_F(ControllerFaults, NonsenseCommandsAreRefused)
{
    for (const char* const pCommand :
         {"", "late", "late x", "refuse", "half 0", "half 1 2", "say", "once", "fly"}) {
        EXPECT_FALSE(runCommand(pCommand)) << pCommand;
    }
}
