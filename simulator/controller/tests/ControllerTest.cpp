// The virtual controller without a port: lines in, answers out, at times of the test's choice.
#include "Controller.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

const int64_t MS = 1000;

class ControllerTest : public testing::Test
{
protected:
    ControllerTest() : m_controller(ControllerSettings(), m_wireLog)
    {
        m_controller.setTrigger([this](const std::string& strInstruction) {
            if ("unplug" == strInstruction) {
                m_controller.dropWire();
            } else {
                EXPECT_TRUE(m_controller.instruct(strInstruction, m_s64Now));
            }
        });
    }

    /** Send bytes and collect the answers that are due, each write marked by a bar. */
    std::string say(const std::string& strBytes)
    {
        m_controller.receive(strBytes, m_s64Now);
        return wait(0);
    }

    std::string wait(int64_t s64Us)
    {
        m_s64Now += s64Us;
        m_controller.advance(m_s64Now);
        std::string strAll;
        for (std::string strText; m_controller.takeAnswer(m_s64Now, strText);) {
            strAll += strText + "|";
        }
        return strAll;
    }

    bool instruct(const std::string& strInstruction)
    {
        return m_controller.instruct(strInstruction, m_s64Now);
    }

    int64_t m_s64Now = 0;
    WireLog m_wireLog;
    Controller m_controller;
};

} // namespace

TEST_F(ControllerTest, StreamedMoveIsAnsweredOnce)
{
    EXPECT_EQ("ok\n|", say("G1 X1 F600\n"));

    EXPECT_EQ("", wait(1000 * MS));
    EXPECT_DOUBLE_EQ(1, m_controller.getMotion().getPosition()[0]);
}

TEST_F(ControllerTest, PositioningMoveIsAnsweredTwice)
{
    EXPECT_EQ("ok\n|", say("G05 X1 F600\n"));

    EXPECT_EQ("", wait(99 * MS));
    EXPECT_EQ("done\n|", wait(1 * MS));
}

TEST_F(ControllerTest, SpotCommandWaitsForTheMoveAndIsAnsweredWithItsEnd)
{
    EXPECT_EQ("ok\n|", say("G05 X-12.50 Y3.00 F2000 \nM18 S1\n"));

    EXPECT_EQ("done\nok\n|", wait(1000 * MS));
    EXPECT_EQ((Point{-12.5, 3, 0}), m_controller.getMotion().getPosition());
    EXPECT_TRUE(m_controller.isSpotOn());
}

TEST_F(ControllerTest, HomingGoesToTheOriginAndIsAnsweredTwice)
{
    say("G1 X5 Y5 Z5 F60000\n");
    wait(1000 * MS);

    EXPECT_EQ("ok\n|", say("$H\n"));
    EXPECT_EQ("done\n|", wait(10000 * MS));
    EXPECT_EQ((Point{0, 0, 0}), m_controller.getMotion().getPosition());
}

TEST_F(ControllerTest, OnceLeavesTheSecondAnswerOut)
{
    EXPECT_TRUE(instruct("once on"));

    EXPECT_EQ("ok\n|", say("$H\n"));
    EXPECT_EQ("", wait(10000 * MS));
}

TEST_F(ControllerTest, SecondLineEndBelongsToItsLine)
{
    EXPECT_EQ("ok\n|", say("G21\n\n"));
    EXPECT_EQ("ok\n|", say("\n"));
    EXPECT_EQ("ok\n|", say("\n"));
}

TEST_F(ControllerTest, LineMayComeInPieces)
{
    EXPECT_EQ("", say("G2"));
    EXPECT_EQ("", say("1"));
    EXPECT_EQ("ok\n|", say("\n"));
}

TEST_F(ControllerTest, FullQueueHoldsTheAnswerBack)
{
    for (size_t i = 0; i <= Motion::MAX_QUEUED; ++i) {
        EXPECT_EQ("ok\n|", say("G91 G1 X1 F600\n"));
    }

    EXPECT_EQ("", say("G1 X1\n"));
    EXPECT_EQ("ok\n|", wait(100 * MS)); // the first move has ended
}

TEST_F(ControllerTest, WaitingLinesPushBack)
{
    say("G05 X100 F60\n"); // a long move
    for (int i = 0; i < 64; ++i) {
        EXPECT_TRUE(m_controller.wantsInput());
        say("M18\n");
    }

    EXPECT_FALSE(m_controller.wantsInput());
}

TEST_F(ControllerTest, BadNumberLocksUntilUnlocked)
{
    EXPECT_EQ("error:2\n|", say("G1 Xnan\n"));
    EXPECT_EQ("error:9\n|", say("G1 X1\n"));
    EXPECT_EQ("ok\n|", say("M5\n")); // laser off is always taken
    EXPECT_EQ("ok\n|", say("$X\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerTest, UnknownLineIsRefusedWithoutALock)
{
    EXPECT_EQ("error:1\n|", say("G77\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerTest, RelativeMovesAddUpAndStayInReach)
{
    EXPECT_EQ("ok\n|", say("G91\n"));
    EXPECT_EQ("ok\n|", say("X1500 F1000000\n"));
    EXPECT_EQ("error:4\n|", say("X1500\n"));
    EXPECT_EQ("ok\n|", say("G90 X-1500\n"));
    wait(1000000 * MS);

    EXPECT_DOUBLE_EQ(-1500, m_controller.getMotion().getPosition()[0]);
}

TEST_F(ControllerTest, LaserCommandsSwitchTheSpot)
{
    EXPECT_TRUE(m_controller.isSpotOn());
    say("M5\n");
    EXPECT_FALSE(m_controller.isSpotOn());
    say("M3 S100\n");
    EXPECT_TRUE(m_controller.isSpotOn());
    say("M18 S0\n");
    EXPECT_FALSE(m_controller.isSpotOn());
}

TEST_F(ControllerTest, HeldControllerTakesNoLineAndSaysWhenItGoesOn)
{
    say("G1 X100 F6000\n");
    wait(500 * MS);

    EXPECT_TRUE(instruct("hold"));
    EXPECT_EQ("status:1\n|", say("G1 X1\n"));
    EXPECT_EQ("", wait(1000 * MS));
    EXPECT_DOUBLE_EQ(50, m_controller.getMotion().getPosition()[0]);
    EXPECT_TRUE(instruct("go"));

    EXPECT_EQ("status:4\nok\n|", say("G1 X1\n"));
    EXPECT_EQ("ok\n|", say("G1 X2\n"));
}

TEST_F(ControllerTest, HoldAndResumeLines)
{
    EXPECT_EQ("ok\n|", say("!\n"));
    EXPECT_EQ("status:1\n|", say("G1 X1\n"));
    EXPECT_EQ("status:4\nok\n|", say("~\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerTest, FaultsChangeTheAnswer)
{
    EXPECT_TRUE(instruct("no-answer"));
    EXPECT_EQ("", say("G21\n"));
    EXPECT_TRUE(instruct("half"));
    EXPECT_EQ("o|", say("G21\n"));
    EXPECT_TRUE(instruct("double"));
    EXPECT_EQ("ok\n|ok\n|", say("G21\n"));
    EXPECT_TRUE(instruct("refuse 5"));
    EXPECT_EQ("error:5\n|", say("G21\n"));
    EXPECT_TRUE(instruct("status 2"));
    EXPECT_EQ("status:2\nok\n|", say("G21\n"));
    EXPECT_TRUE(instruct("say hello\\n"));
    EXPECT_EQ("hello\n|", wait(0));

    EXPECT_EQ("ok\n|", say("G21\n"));
}

TEST_F(ControllerTest, GarbageFillsAReplyBufferAndIsNoAcknowledgement)
{
    EXPECT_TRUE(instruct("garbage"));

    const std::string strAnswer = say("G21\n");

    EXPECT_EQ(64U + 1, strAnswer.size());
    EXPECT_NE(std::string::npos, strAnswer.find('\xff'));
    EXPECT_FALSE(parseReply(strAnswer).bAck);
}

TEST_F(ControllerTest, LateAnswerKeepsItsPlaceInLine)
{
    EXPECT_TRUE(instruct("late 300"));

    EXPECT_EQ("", say("G77\n"));
    EXPECT_EQ("", say("G21\n"));
    EXPECT_EQ("", wait(299 * MS));
    EXPECT_EQ("error:1\n|ok\n|", wait(1 * MS));
}

TEST_F(ControllerTest, FaultsAreUsedUpInOrder)
{
    EXPECT_TRUE(instruct("refuse 5 2"));
    EXPECT_TRUE(instruct("half"));

    EXPECT_EQ("error:5\n|", say("G21\n"));
    EXPECT_EQ("error:5\n|", say("G21\n"));
    EXPECT_EQ("o|", say("G21\n"));
    EXPECT_EQ("ok\n|", say("G21\n"));
}

TEST_F(ControllerTest, RefusedLineIsNotCarriedOut)
{
    EXPECT_TRUE(instruct("refuse 5"));

    say("G1 X1\n");

    EXPECT_TRUE(m_controller.getMotion().isIdle());
}

TEST_F(ControllerTest, AlarmStopsTheArmAndLocks)
{
    say("G1 X100 F6000\n");
    wait(500 * MS);
    EXPECT_TRUE(instruct("alarm 1"));

    EXPECT_EQ("alarm:1\n|", say("G1 X1\n"));
    EXPECT_EQ("error:9\n|", say("G1 X1\n"));
    wait(1000 * MS);
    EXPECT_DOUBLE_EQ(50, m_controller.getMotion().getPosition()[0]);
    EXPECT_EQ("ok\n|", say("$X\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerTest, TriggerComesWithItsLine)
{
    m_controller.addTrigger(2, "refuse 5");

    EXPECT_EQ("ok\n|error:5\n|ok\n|", say("G21\nG21\nG21\n"));
}

TEST_F(ControllerTest, LineOnWhichTheCableIsPulledIsLost)
{
    m_controller.addTrigger(2, "unplug");

    EXPECT_EQ("", say("G21\nG1 X1\n"));

    EXPECT_TRUE(m_controller.getMotion().isIdle());
}

TEST_F(ControllerTest, NonsenseInstructionsAreRefused)
{
    for (const char* const pInstruction :
         {"", "late", "late x", "refuse", "half 0", "half 1 2", "say", "once", "fly"}) {
        EXPECT_FALSE(instruct(pInstruction)) << pInstruction;
    }
}

TEST_F(ControllerTest, ImageIsNotTakenForLines)
{
    EXPECT_EQ("ok\n|", say("M21\n"));
    EXPECT_EQ("", say(std::string("KFW1\x04\0\0\0G1\n\n", 12)));

    EXPECT_EQ("ok\n|", say("G21\n"));
    EXPECT_NE(std::string::npos, m_controller.describe().find("lines=2"));
}

TEST_F(ControllerTest, ResetForgetsEverythingButThePosition)
{
    say("G1 X100 F6000\n");
    wait(500 * MS);
    say("G1 Xnan\n");
    say("M5\n");

    m_controller.reset();

    EXPECT_EQ("ok\n|", say("G21\n"));
    EXPECT_TRUE(m_controller.getMotion().isIdle());
    EXPECT_TRUE(m_controller.isSpotOn());
    EXPECT_DOUBLE_EQ(50, m_controller.getMotion().getPosition()[0]);
}
