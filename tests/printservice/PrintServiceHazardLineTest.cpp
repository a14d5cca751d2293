// Which lines and moves reach the arm twice, not at all, or though nobody wants them, with the
// service alone. What is called Deliberate is not safe, but as agreed: docs/serial.md has the
// table.
#include <algorithm>
#include <set>
#include <string>
#include <thread>

#include "EventBus.h"
#include "Eventually.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "PrintServiceHazardFixture.h"
#include "PtyController.h"

namespace {

using PrintServiceHazardLine = PrintServiceHazardFixture;

/** One that answers every line end, and takes its time for that. */
class PrintServiceHazardLineAnsweringArm : public PrintServiceHazardFixture
{
protected:
    PrintServiceHazardLineAnsweringArm()
        : PrintServiceHazardFixture({"--answer-empty-lines", "--answer-ms", "40"})
    {
    }
};

/** One that tells what it does while it moves. */
class PrintServiceHazardLineTellingArm : public PrintServiceHazardFixture
{
protected:
    PrintServiceHazardLineTellingArm() : PrintServiceHazardFixture({"--status-ms", "50"}) {}
};

} // namespace

TEST_F(PrintServiceHazardLine, DeliberateJobUnlocksAndGoesOnAfterAnAlarm)
{
    m_controller.command("line 2 alarm 1");

    runJob("M3 S100\nG1 X1 F6000\nG1 X2\n");

    EXPECT_EQ(0U, m_controller.readReceivedBytes().find("M3 S100\n\nG1 X1 F6000\n\n"
                                                        "G1 X1 F6000\n\n$X\nG1 X1 F6000\n\n"));
    EXPECT_TRUE(eventually([this] { return 2 == m_controller.getState("x"); }));
    EXPECT_TRUE(isLaserOn());
}

TEST_F(PrintServiceHazardLine, DeliberateUnansweredLineIsCarriedOutTwice)
{
    m_controller.command("line 3 no-answer"); // carried out all the same

    runJob("M3 S100\nG91\nG1 X1 F6000\n");

    EXPECT_TRUE(waitUntilStill());
    EXPECT_EQ(2, m_controller.getState("x"));
    EXPECT_TRUE(isLaserOn());
}

TEST_F(PrintServiceHazardLineAnsweringArm,
       DeliberateAnsweredLineEndsLoseARefusedLineAndRepeatAnother)
{
    m_controller.command("line 7 refuse 5"); // the fourth, each with an empty line behind it

    runJob("G1 X1 F60000\nG1 X2\nG1 X3\nG1 X4\nG1 X5\nG1 X6\nG1 X7\nG1 X8\n");

    Texts vecLine = received();
    vecLine.erase(std::remove(vecLine.begin(), vecLine.end(), ""), vecLine.end());
    EXPECT_EQ((Texts{"G1 X1 F60000", "G1 X2", "G1 X3", "G1 X4", "G1 X5", "G1 X6", "G1 X7", "G1 X7",
                     "G1 X8"}),
              vecLine);
}

TEST_F(PrintServiceHazardLineTellingArm, DeliberateLineThatWaitsIsRepeatedForAStatusAlone)
{
    std::string strJob; // of moves that take seconds: the queue is full before the last one
    for (int i = 0; i < 30; ++i) {
        strJob += "G1 X" + std::to_string(60 * (i % 2)) + " Y" + std::to_string(i) + " F1200\n";
    }

    startJob(strJob);

    EXPECT_TRUE(eventually([this] {
        const Texts vecLine = received();
        std::set<std::string> setLine(vecLine.begin(), vecLine.end());
        const auto nEmpty = std::count(vecLine.begin(), vecLine.end(), "");
        return vecLine.size() - static_cast<size_t>(nEmpty) > setLine.size() - setLine.count("");
    })) << "carried out twice";
    EXPECT_EQ(0, service().stopPrint());
    EXPECT_TRUE(contains(output(), "get status code:5 \n"));
}

TEST_F(PrintServiceHazardLine, TakenLineMovesTheArmTwiceASecondWhilePaused)
{
    m_controller.command("line 3 status 1");
    startJob("M3 S100\nG91\nG1 X0.1 F600000\nG1 X1\n");
    EXPECT_TRUE(waitForState(PRINT_STATE_PAUSED));
    const uint64_t u64Start = monotonicMs();

    EXPECT_TRUE(eventually([this] { return 0.35 < m_controller.getState("x"); }));

    EXPECT_LE(1490U, monotonicMs() - u64Start); // three repeats
    EXPECT_TRUE(isLaserOn());
    EXPECT_EQ(0, service().pausePrint());
    EXPECT_FALSE(isLaserOn());
}

TEST_F(PrintServiceHazardLine, DeliberateMoveInTheMiddleOfAJobGoesOut)
{
    startJob(makeMoves(60));
    EXPECT_TRUE(eventually([this] { return isMoving(); }));
    std::thread publisher([] {
        MoveLaserEvent event(1, 1);
        EventBus<MoveLaserEvent>::publish(event);
    });

    // The kernel refuses a write that meets another to the same port: then the move goes unhomed.
    EXPECT_TRUE(eventually(
        [this] { return hasReceived("$H") || hasReceived("G05 X-1.00 Y-1.00 F2000 "); }));

    EXPECT_TRUE(isLaserOn());
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    m_controller.command("unplug"); // ends the waiting for replies that the job has taken
    publisher.join();
}

TEST_F(PrintServiceHazardLine, DeliberateMoveGoesOutAlthoughHomingWasRefused)
{
    m_controller.command("line 1 refuse 5");
    m_controller.command("say done\\n"); // a refused line has no second answer to wait for

    MoveLaserEvent event(12.5F, -3);
    EventBus<MoveLaserEvent>::publish(event);

    EXPECT_TRUE(eventually([this] { return -12.5 == m_controller.getState("x"); }));
    EXPECT_TRUE(waitUntilStill());
    EXPECT_EQ(0, m_controller.getState("homed"));
}

TEST_F(PrintServiceHazardLine, DeliberateNumbersOutsideTheFieldGoOut)
{
    m_controller.command("say done\\n");     // a refused move has no second answer to wait for
    m_controller.command("line 1 late 300"); // so that it is not read together with that
    MeasureEvent event(1e38F);

    EventBus<MeasureEvent>::publish(event);

    EXPECT_EQ(0U, received().at(0).find("G05 Z-99999996"));
    EXPECT_FALSE(isMoving()); // this controller refuses
}

TEST_F(PrintServiceHazardLine, DeliberateTailOfALongCommentIsACommand)
{
    EXPECT_EQ(0, service().printSingleCmd("M5", 2));
    const std::string strComment = "(" + std::string(254, 'c'); // as much as one piece holds

    runJob(strComment + "M3 S1000 (to be left out)\n");

    EXPECT_TRUE(waitForLines(4));
    EXPECT_EQ("M3 S1000 (to be left out)", received().at(2));
    EXPECT_TRUE(isLaserOn());
    EXPECT_FALSE(isMoving());
}

TEST_F(PrintServiceHazardLine, DeliberateAnswerTooManyLosesARefusedLine)
{
    // One "ok" too many behind the second line: from then on each answer belongs to the line
    // before.
    PtyController controller;
    controller.answerWith({"ok\n", "ok\n", "ok\n", "ok\n", "error:5\n"});
    service().setUart(&controller.m_uart);

    runJob("G1 X1\nG1 X2\nG1 X3\nG1 X4\nG1 X5\nG1 X6\n"); // it is the fourth that is refused

    EXPECT_TRUE(eventually([&controller] { return 7 <= controller.lines().size(); }));
    EXPECT_EQ((Texts{"G1 X1", "G1 X2", "G1 X3", "G1 X4", "G1 X5", "G1 X5", "G1 X6"}),
              controller.lines());
    EXPECT_TRUE(waitForThread()); // the port goes with the controller
    service().setUart(&m_uart);
}
