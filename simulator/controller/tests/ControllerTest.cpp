// The virtual controller without a port: lines in, answers out, at times of the test's choice.
#include "Controller.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AnswerText.h"

namespace {

const int64_t MS = 1000;

class ControllerDialogue : public testing::Test
{
protected:
    explicit ControllerDialogue(const ControllerSettings& settings = {})
        : m_controller(settings, m_journal)
    {
        m_controller.setTrigger([this](const std::string& strCommand) {
            if ("unplug" == strCommand) {
                m_controller.dropWire();
            } else {
                EXPECT_TRUE(m_controller.runCommand(strCommand, m_s64Now));
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

    bool runCommand(const std::string& strCommand)
    {
        return m_controller.runCommand(strCommand, m_s64Now);
    }

    const Beam& beam() const
    {
        return m_controller.getBeam().get();
    }

    bool isHomed() const
    {
        return std::string::npos != m_controller.describe().find(" homed=1");
    }

    int64_t m_s64Now = 0;
    ControllerJournal m_journal;
    Controller m_controller;
};

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

class ControllerCareless : public ControllerDialogue
{
protected:
    ControllerCareless() : ControllerDialogue(makeSettings()) {}

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

} // namespace

TEST_F(ControllerDialogue, StreamedMoveIsAnsweredOnce)
{
    EXPECT_EQ("ok\n|", say("G1 X1 F600\n"));

    EXPECT_EQ("", wait(1000 * MS));
    EXPECT_DOUBLE_EQ(1, m_controller.getMotion().getPosition()[0]);
}

TEST_F(ControllerDialogue, PositioningMoveIsAnsweredTwice)
{
    EXPECT_EQ("ok\n|", say("G05 X1 F600\n"));

    EXPECT_EQ("", wait(99 * MS));
    EXPECT_EQ("done\n|", wait(1 * MS));
}

TEST_F(ControllerDialogue, SpotCommandWaitsForTheMoveAndIsAnsweredWithItsEnd)
{
    EXPECT_EQ("ok\n|", say("G05 X-12.50 Y3.00 F2000 \nM18 S1\n"));

    EXPECT_EQ("done\nok\n|", wait(1000 * MS));
    EXPECT_EQ((Point{-12.5, 3, 0}), m_controller.getMotion().getPosition());
    EXPECT_TRUE(m_controller.isPilotOn());
}

TEST_F(ControllerDialogue, HomingGoesToTheOriginAndIsAnsweredTwice)
{
    say("G1 X5 Y5 Z5 F60000\n");
    wait(1000 * MS);

    EXPECT_EQ("ok\n|", say("$H\n"));
    EXPECT_EQ("done\n|", wait(10000 * MS));
    EXPECT_EQ((Point{0, 0, 0}), m_controller.getMotion().getPosition());
}

TEST_F(ControllerDialogue, OnceLeavesTheSecondAnswerOut)
{
    EXPECT_TRUE(runCommand("once on"));

    EXPECT_EQ("ok\n|", say("$H\n"));
    EXPECT_EQ("", wait(10000 * MS));
}

TEST_F(ControllerDialogue, SecondLineEndBelongsToItsLine)
{
    EXPECT_EQ("ok\n|", say("G21\n\n"));
    EXPECT_EQ("ok\n|", say("\n"));
    EXPECT_EQ("ok\n|", say("\n"));
}

TEST_F(ControllerDialogue, LineMayComeInPieces)
{
    EXPECT_EQ("", say("G2"));
    EXPECT_EQ("", say("1"));
    EXPECT_EQ("ok\n|", say("\n"));
}

TEST_F(ControllerDialogue, FullQueueHoldsTheAnswerBack)
{
    for (size_t i = 0; i <= Motion::MAX_QUEUED; ++i) {
        EXPECT_EQ("ok\n|", say("G91 G1 X1 F600\n"));
    }

    EXPECT_EQ("", say("G1 X1\n"));
    EXPECT_EQ("ok\n|", wait(100 * MS)); // the first move has ended
}

TEST_F(ControllerDialogue, WaitingLinesPushBack)
{
    say("G05 X100 F60\n"); // a long move
    for (int i = 0; i < 64; ++i) {
        EXPECT_TRUE(m_controller.wantsInput());
        say("M18\n");
    }

    EXPECT_FALSE(m_controller.wantsInput());
}

TEST_F(ControllerDialogue, BadNumberLocksUntilUnlocked)
{
    EXPECT_EQ("error:2\n|", say("G1 Xnan\n"));
    EXPECT_EQ("error:9\n|", say("G1 X1\n"));
    EXPECT_EQ("ok\n|", say("M5\n")); // laser off is always taken
    EXPECT_EQ("ok\n|", say("$X\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerDialogue, UnknownLineIsRefusedWithoutALock)
{
    EXPECT_EQ("error:1\n|", say("G77\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerDialogue, RelativeMovesAddUpAndStayInReach)
{
    EXPECT_EQ("ok\n|", say("G91\n"));
    EXPECT_EQ("ok\n|", say("X1500 F1000000\n"));
    EXPECT_EQ("error:4\n|", say("X1500\n"));
    EXPECT_EQ("ok\n|", say("G90 X-1500\n"));
    wait(1000000 * MS);

    EXPECT_DOUBLE_EQ(-1500, m_controller.getMotion().getPosition()[0]);
}

TEST_F(ControllerDialogue, RefusedRelativeMoveChangesNothing)
{
    say("G1 X1900 F1000000\n");
    wait(1000 * MS);

    EXPECT_EQ("error:4\n|", say("G91 X1500 F60 M3 S100\n"));

    EXPECT_EQ("ok\n|", say("G1 X1890\n")); // absolute, at the former rate
    EXPECT_EQ("", wait(1 * MS));
    EXPECT_DOUBLE_EQ(1890, m_controller.getMotion().getPosition()[0]);
    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerDialogue, LaserAndPilotSpotAreTwoThings)
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

TEST_F(ControllerDialogue, LaserHasTheLastPowerAndIsDarkWithoutAny)
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

TEST_F(ControllerDialogue, LaserWordsTakeEffectBehindQueuedMoves)
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

TEST_F(ControllerDialogue, BeamIsToldWithTheMomentOfItsChange)
{
    say("M3 S100\nG1 X10 F600\nM5\n");

    wait(1500 * MS); // nobody looked at the end of the move, after a second

    EXPECT_EQ("on=0 power=100 moving=0 since=1.000000 moving-since=1.000000 now=1.500000",
              m_controller.getBeam().describe(m_s64Now));
}

TEST_F(ControllerDialogue, CombinedWordsAreAllCarriedOut)
{
    EXPECT_EQ("ok\n|", say("M3 S100 G1 X10 F600\n"));
    EXPECT_TRUE(beam().bOn && beam().bMoving);
    EXPECT_EQ("ok\n|", say("G05 X20 M5\n"));

    EXPECT_EQ("", wait(1500 * MS));
    EXPECT_FALSE(beam().bOn);
    EXPECT_EQ("done\n|", wait(500 * MS));
    EXPECT_DOUBLE_EQ(20, m_controller.getMotion().getPosition()[0]);
}

TEST_F(ControllerDialogue, DwellHasItsPlaceInTheQueue)
{
    say("M3 S100\nG4 P2\nM5\n");

    wait(1999 * MS);
    EXPECT_TRUE(beam().bOn);
    wait(1 * MS);
    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerDialogue, LaserOffIsTakenWhileLocked)
{
    say("M3 S100\nG1 X\n");
    EXPECT_EQ("error:9\n|", say("G21\n"));

    EXPECT_EQ("ok\n|", say("M5\n"));

    EXPECT_FALSE(beam().bOn);
}

TEST_F(ControllerDialogue, HoldByteActsPastAFullQueueWithTheBeamOff)
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

TEST_F(ControllerDialogue, ResetByteDropsTheQueueAndGreets)
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

TEST_F(ControllerDialogue, HeldControllerKeepsLaserOffForItsPlace)
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

TEST_F(ControllerDialogue, AlarmOfItsOwnComesUnasked)
{
    say("M3 S100\nG1 X10 F600\n");
    wait(500 * MS);

    EXPECT_TRUE(runCommand("alarm-now 2"));

    EXPECT_EQ("alarm:2\n|", wait(0));
    EXPECT_FALSE(beam().bOn || beam().bMoving);
    EXPECT_EQ("error:9\n|", say("G21\n"));
}

TEST_F(ControllerDialogue, RestartGreetsWithTheBeamOff)
{
    say("M3 S100\nG1 X10 F600\n");

    EXPECT_TRUE(runCommand("restart"));

    EXPECT_EQ("ready\n|", wait(0));
    EXPECT_FALSE(beam().bOn || beam().bMoving);
}

TEST_F(ControllerDialogue, MutedControllerSaysNothingButWorks)
{
    EXPECT_TRUE(runCommand("mute"));
    EXPECT_EQ("", say("M3 S100\nG21\n"));
    EXPECT_TRUE(runCommand("unmute"));

    EXPECT_EQ("ok\n|", say("G21\n")); // what was lost stays lost
    EXPECT_TRUE(beam().bOn);
}

TEST_F(ControllerAnswering, EveryLineEndIsAnswered)
{
    EXPECT_EQ("ok\n|ok\n|", say("G21\n\n"));
    EXPECT_EQ("ok\n|", say("\n"));
}

TEST_F(ControllerCareless, LaserIsOnAtPowerUpAndAfterReset)
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

TEST_F(ControllerCareless, HoldAndAlarmKeepTheLaser)
{
    say("M3 S100\nG1 X10 F600\n");
    say("!");
    EXPECT_TRUE(beam().bOn);
    EXPECT_FALSE(beam().bMoving);

    EXPECT_TRUE(runCommand("alarm-now 1"));

    EXPECT_TRUE(beam().bOn);
}

TEST_F(ControllerDialogue, HeldControllerTakesNoLineAndSaysWhenItGoesOn)
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

TEST_F(ControllerDialogue, HoldAndResumeLines)
{
    EXPECT_EQ("ok\n|", say("G21\n"));
    EXPECT_EQ("", say("!\n")); // a byte has no answer
    EXPECT_EQ("status:1\n|", say("G1 X1\n"));
    EXPECT_EQ("status:4\nok\n|", say("~\n"));
    EXPECT_EQ("ok\n|", say("G1 X1\n"));
}

TEST_F(ControllerDialogue, FaultsChangeTheAnswer)
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

TEST_F(ControllerDialogue, GarbageFillsAReplyBufferAndIsNoAcknowledgement)
{
    EXPECT_TRUE(runCommand("garbage"));

    const std::string strAnswer = say("G21\n");

    EXPECT_EQ(64U + 1, strAnswer.size());
    EXPECT_NE(std::string::npos, strAnswer.find('\xff'));
    EXPECT_FALSE(parseReply(strAnswer).bAck);
}

TEST_F(ControllerDialogue, LateAnswerKeepsItsPlaceInLine)
{
    EXPECT_TRUE(runCommand("late 300"));

    EXPECT_EQ("", say("G77\n"));
    EXPECT_EQ("", say("G21\n"));
    EXPECT_EQ("", wait(299 * MS));
    EXPECT_EQ("error:1\n|ok\n|", wait(1 * MS));
}

TEST_F(ControllerDialogue, FaultsAreUsedUpInOrder)
{
    EXPECT_TRUE(runCommand("refuse 5 2"));
    EXPECT_TRUE(runCommand("half"));

    EXPECT_EQ("error:5\n|", say("G21\n"));
    EXPECT_EQ("error:5\n|", say("G21\n"));
    EXPECT_EQ("o|", say("G21\n"));
    EXPECT_EQ("ok\n|", say("G21\n"));
}

TEST_F(ControllerDialogue, RefusedLineIsNotCarriedOut)
{
    EXPECT_TRUE(runCommand("refuse 5"));

    say("G1 X1\n");

    EXPECT_TRUE(m_controller.getMotion().isIdle());
}

TEST_F(ControllerDialogue, AlarmStopsTheArmAndLocks)
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

TEST_F(ControllerDialogue, TriggerComesWithItsLine)
{
    m_controller.addTrigger(2, "refuse 5");

    EXPECT_EQ("ok\n|error:5\n|ok\n|", say("G21\nG21\nG21\n"));
}

TEST_F(ControllerDialogue, LineOnWhichTheCableIsPulledIsLost)
{
    m_controller.addTrigger(2, "unplug");

    EXPECT_EQ("", say("G21\nG1 X1\n"));

    EXPECT_TRUE(m_controller.getMotion().isIdle());
}

TEST_F(ControllerDialogue, NonsenseCommandsAreRefused)
{
    for (const char* const pCommand :
         {"", "late", "late x", "refuse", "half 0", "half 1 2", "say", "once", "fly"}) {
        EXPECT_FALSE(runCommand(pCommand)) << pCommand;
    }
}

TEST_F(ControllerDialogue, ImageIsNotTakenForLines)
{
    EXPECT_EQ("ok\n|", say("M21\n"));
    EXPECT_EQ("", say(std::string("KFW1\x04\0\0\0G1\n\n", 12)));

    EXPECT_EQ("ok\n|", say("G21\n"));
    EXPECT_NE(std::string::npos, m_controller.describe().find("lines=2"));
}

TEST_F(ControllerDialogue, ResetForgetsEverythingButThePosition)
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
