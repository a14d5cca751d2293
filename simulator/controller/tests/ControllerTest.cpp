// The virtual controller without a port: lines in, answers out, at times of the test's choice.
#include "Controller.h"

#include <string>

#include <gtest/gtest.h>

#include "ControllerDialogue.h"

namespace {

/** Controllers that differ in one habit. */
class ControllerAnswering : public ControllerDialogue
{
protected:
    ControllerAnswering() : ControllerDialogue(makeSettings()) {}

    static ControllerSettings makeSettings()
    {
        ControllerSettings settings;
        settings.bAnswerEmptyLines = true;
        return settings;
    }
};

class ControllerLines : public ControllerDialogue
{
};

} // namespace

TEST_F(ControllerLines, StreamedMoveIsAnsweredOnce)
{
    EXPECT_EQ("ok\n|", say("G1 X1 F600\n"));

    EXPECT_EQ("", wait(1000 * MS));
    EXPECT_DOUBLE_EQ(1, m_controller.getMotion().getPosition()[0]);
}

TEST_F(ControllerLines, PositioningMoveIsAnsweredTwice)
{
    EXPECT_EQ("ok\n|", say("G05 X1 F600\n"));

    EXPECT_EQ("", wait(99 * MS));
    EXPECT_EQ("done\n|", wait(1 * MS));
}

TEST_F(ControllerLines, SpotCommandWaitsForTheMoveAndIsAnsweredWithItsEnd)
{
    EXPECT_EQ("ok\n|", say("G05 X-12.50 Y3.00 F2000 \nM18 S1\n"));

    EXPECT_EQ("done\nok\n|", wait(1000 * MS));
    EXPECT_EQ((Point{-12.5, 3, 0}), m_controller.getMotion().getPosition());
    EXPECT_TRUE(m_controller.isPilotOn());
}

TEST_F(ControllerLines, HomingGoesToTheOriginAndIsAnsweredTwice)
{
    say("G1 X5 Y5 Z5 F60000\n");
    wait(1000 * MS);

    EXPECT_EQ("ok\n|", say("$H\n"));
    EXPECT_EQ("done\n|", wait(10000 * MS));
    EXPECT_EQ((Point{0, 0, 0}), m_controller.getMotion().getPosition());
}

TEST_F(ControllerLines, OnceLeavesTheSecondAnswerOut)
{
    EXPECT_TRUE(runCommand("once on"));

    EXPECT_EQ("ok\n|", say("$H\n"));
    EXPECT_EQ("", wait(10000 * MS));
}

TEST_F(ControllerLines, SecondLineEndBelongsToItsLine)
{
    EXPECT_EQ("ok\n|", say("G21\n\n"));
    EXPECT_EQ("ok\n|", say("\n"));
    EXPECT_EQ("ok\n|", say("\n"));
}

TEST_F(ControllerLines, LineMayComeInPieces)
{
    EXPECT_EQ("", say("G2"));
    EXPECT_EQ("", say("1"));
    EXPECT_EQ("ok\n|", say("\n"));
}

TEST_F(ControllerLines, FullQueueHoldsTheAnswerBack)
{
    for (size_t i = 0; i <= Motion::MAX_QUEUED; ++i) {
        EXPECT_EQ("ok\n|", say("G91 G1 X1 F600\n"));
    }

    EXPECT_EQ("", say("G1 X1\n"));
    EXPECT_EQ("ok\n|", wait(100 * MS)); // the first move has ended
}

TEST_F(ControllerLines, WaitingLinesPushBack)
{
    say("G05 X100 F60\n"); // a long move
    for (int i = 0; i < 64; ++i) {
        EXPECT_TRUE(m_controller.wantsInput());
        say("M18\n");
    }

    EXPECT_FALSE(m_controller.wantsInput());
}

TEST_F(ControllerLines, BadNumberLocksUntilUnlocked)
{
    EXPECT_EQ("error:2\n|", say("G1 Xnan\n"));
    EXPECT_EQ("error:9\n|", say("G1 X1\n"));
    EXPECT_EQ("ok\n|", say("M5\n")); // laser off is always taken
    EXPECT_EQ("ok\n|", say("$X\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerLines, UnknownLineIsRefusedWithoutALock)
{
    EXPECT_EQ("error:1\n|", say("G77\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerLines, RelativeMovesAddUpAndStayInReach)
{
    EXPECT_EQ("ok\n|", say("G91\n"));
    EXPECT_EQ("ok\n|", say("X1500 F1000000\n"));
    EXPECT_EQ("error:4\n|", say("X1500\n"));
    EXPECT_EQ("ok\n|", say("G90 X-1500\n"));
    wait(1000000 * MS);

    EXPECT_DOUBLE_EQ(-1500, m_controller.getMotion().getPosition()[0]);
}

TEST_F(ControllerLines, RefusedRelativeMoveChangesNothing)
{
    say("G1 X1900 F1000000\n");
    wait(1000 * MS);

    EXPECT_EQ("error:4\n|", say("G91 X1500 F60 M3 S100\n"));

    EXPECT_EQ("ok\n|", say("G1 X1890\n")); // absolute, at the former rate
    EXPECT_EQ("", wait(1 * MS));
    EXPECT_DOUBLE_EQ(1890, m_controller.getMotion().getPosition()[0]);
    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerLines, CombinedWordsAreAllCarriedOut)
{
    EXPECT_EQ("ok\n|", say("M3 S100 G1 X10 F600\n"));
    EXPECT_TRUE(beam().bOn && beam().bMoving);
    EXPECT_EQ("ok\n|", say("G05 X20 M5\n"));

    EXPECT_EQ("", wait(1500 * MS));
    EXPECT_FALSE(beam().bOn);
    EXPECT_EQ("done\n|", wait(500 * MS));
    EXPECT_DOUBLE_EQ(20, m_controller.getMotion().getPosition()[0]);
}

TEST_F(ControllerLines, DwellHasItsPlaceInTheQueue)
{
    say("M3 S100\nG4 P2\nM5\n");

    wait(1999 * MS);
    EXPECT_TRUE(beam().bOn);
    wait(1 * MS);
    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerLines, ResetByteDropsTheQueueAndGreets)
{
    say("$H\n");
    EXPECT_EQ("done\n|", wait(100 * MS));
    EXPECT_TRUE(isHomed());
    say("M3 S100\nG91\n");
    for (int i = 0; i < 40; ++i) {
        say("G1 X10 F600\n");
    }
    wait(500 * MS);

    EXPECT_EQ("ready\n|", say("G1 X\x18"));

    EXPECT_FALSE(beam().bOn);
    EXPECT_FALSE(isHomed());
    EXPECT_EQ("", wait(10000 * MS));
    EXPECT_DOUBLE_EQ(5, m_controller.getMotion().getPosition()[0]);
    EXPECT_EQ("ok\n|", say("G21\n"));
}

TEST_F(ControllerAnswering, EveryLineEndIsAnswered)
{
    EXPECT_EQ("ok\n|ok\n|", say("G21\n\n"));
    EXPECT_EQ("ok\n|", say("\n"));
}

TEST_F(ControllerLines, HeldControllerTakesNoLineAndSaysWhenItGoesOn)
{
    say("G1 X100 F6000\n");
    wait(500 * MS);

    EXPECT_TRUE(runCommand("hold"));
    EXPECT_EQ("status:1\n|", say("G1 X1\n"));
    EXPECT_EQ("", wait(1000 * MS));
    EXPECT_DOUBLE_EQ(50, m_controller.getMotion().getPosition()[0]);
    EXPECT_TRUE(runCommand("go"));

    EXPECT_EQ("status:4\nok\n|", say("G1 X1\n"));
    EXPECT_EQ("ok\n|", say("G1 X2\n"));
}

TEST_F(ControllerLines, HoldTakesNoLineThatWaitsForRoom)
{
    for (size_t i = 0; i <= Motion::MAX_QUEUED; ++i) {
        say("G91 G1 X1 F600\n");
    }
    EXPECT_EQ("", say("G1 X1\n"));

    EXPECT_TRUE(runCommand("hold"));

    EXPECT_EQ("status:1\n|", wait(0));
}

TEST_F(ControllerLines, HoldAndResumeLines)
{
    EXPECT_EQ("ok\n|", say("G21\n"));
    EXPECT_EQ("", say("!\n")); // a byte has no answer
    EXPECT_EQ("status:1\n|", say("G1 X1\n"));
    EXPECT_EQ("status:4\nok\n|", say("~\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerLines, ImageIsNotTakenForLines)
{
    EXPECT_EQ("ok\n|", say("M21\n"));
    EXPECT_EQ("", say(std::string("KFW1\x04\0\0\0G1\n\n", 12)));

    EXPECT_EQ("ok\n|", say("G21\n"));
    EXPECT_NE(std::string::npos, m_controller.describe().find("lines=2"));
}

TEST_F(ControllerLines, ResetForgetsEverythingButThePosition)
{
    say("G1 X100 F6000\n");
    wait(500 * MS);
    say("G1 Xnan\n");
    say("M5\n");

    m_controller.reset(m_s64Now);

    EXPECT_EQ("ok\n|", say("G21\n"));
    EXPECT_TRUE(m_controller.getMotion().isIdle());
    EXPECT_TRUE(m_controller.isPilotOn());
    EXPECT_FALSE(beam().bOn);
    EXPECT_DOUBLE_EQ(50, m_controller.getMotion().getPosition()[0]);
}

namespace {

class ControllerTelling : public ControllerDialogue
{
protected:
    ControllerTelling() : ControllerDialogue(makeSettings()) {}

    static ControllerSettings makeSettings()
    {
        ControllerSettings settings;
        settings.s64StatusUs = 400 * MS;
        settings.bBootGreeting = true;
        return settings;
    }
};

} // namespace

TEST_F(ControllerTelling, MovingArmTellsItsStatusUnasked)
{
    EXPECT_EQ("ok\n|", say("G1 X10 F600\n")); // a second
    EXPECT_EQ("", wait(399 * MS));
    EXPECT_EQ("status:5\n|", wait(1 * MS));
    EXPECT_EQ("status:5\n|", wait(400 * MS));

    EXPECT_EQ("", wait(5000 * MS)) << "it rests since";
}

TEST_F(ControllerTelling, HeldArmDoesNotMove)
{
    say("G1 X10 F600\n");
    say("!");

    EXPECT_EQ("", wait(5000 * MS));
}

TEST_F(ControllerTelling, GreetsOnceItHasBooted)
{
    m_controller.booted(m_s64Now);

    EXPECT_EQ("ready\n|", wait(0));
}

TEST_F(ControllerLines, DoesNotGreetUnlessToldSo)
{
    m_controller.booted(m_s64Now);

    EXPECT_EQ("", wait(0));
}
