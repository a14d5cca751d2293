// What the laser does when something goes wrong, with the service alone. What is called Deliberate
// is not safe, but as agreed: docs/serial.md has the table.
#include <atomic>
#include <string>
#include <thread>

#include "Eventually.h"
#include "FileSizeLimit.h"
#include "PrintServiceHazardFixture.h"
#include "Time.h"

namespace {

using PrintServiceHazard = PrintServiceHazardFixture;

/** A controller that takes care of the laser itself. */
class PrintServiceHazardCarefulArm : public PrintServiceHazardFixture
{
protected:
    PrintServiceHazardCarefulArm() : PrintServiceHazardFixture(Texts{}) {}
};

/** One that switches the laser off when it hears nothing. */
class PrintServiceHazardTiringArm : public PrintServiceHazardFixture
{
protected:
    PrintServiceHazardTiringArm() : PrintServiceHazardFixture({"--idle-off-ms", "300"}) {}
};

/** One that is reset by who opens its port. */
class PrintServiceHazardResettingArm : public PrintServiceHazardFixture
{
protected:
    PrintServiceHazardResettingArm() : PrintServiceHazardFixture({"--reset-on-open"}) {}
};

} // namespace

TEST_F(PrintServiceHazard, DeliberateEndOfTheServiceLeavesLaserAndMovesAsTheyAre)
{
    startJob(makeMoves(60));
    EXPECT_TRUE(eventually([this] { return isMoving(); }));

    m_pService.reset();
    m_uart.close();

    EXPECT_TRUE(isLaserOn());
    EXPECT_TRUE(isMoving()); // what was queued
    EXPECT_FALSE(hasReceived("M5"));
}

TEST_F(PrintServiceHazard, DeliberatePulledCableLeavesTheLaserOn)
{
    m_controller.command("line 16 unplug"); // a queue of moves is under way
    startJob(makeMoves(60));
    EXPECT_TRUE(waitForThread());

    EXPECT_TRUE(isLaserOn());
    EXPECT_TRUE(isMoving());
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    m_controller.command("plug");
    EXPECT_EQ(0, service().stopPrint());

    EXPECT_TRUE(isLaserOn()); // nobody has opened the port again
    EXPECT_TRUE(contains(output(), "laser off could not be sent!\n"));
    ASSERT_EQ(1, m_uart.open(m_controller.getNode()));
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    EXPECT_EQ(0, service().stopPrint());
    EXPECT_TRUE(waitUntilDark()); // behind what was queued
}

TEST_F(PrintServiceHazard, DeliberateResetInAJobEndsNothingAndHomesNothing)
{
    startJob(makeMoves(60));
    EXPECT_TRUE(eventually([this] { return isMoving(); }));

    EXPECT_EQ(0, service().resetStm32());

    EXPECT_TRUE(waitForThread()); // by the port that went away
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    EXPECT_TRUE(eventually([this] { return 2 == m_controller.readTexts("plugged").size(); }));
    EXPECT_TRUE(isLaserOn()); // as this controller is after a reset
    EXPECT_FALSE(isMoving());
    EXPECT_FALSE(hasReceived("$H"));
    EXPECT_FALSE(hasReceived("M5"));
}

TEST_F(PrintServiceHazard, DeliberateGreetingInAJobDoesNotStopIt)
{
    m_controller.command("line 3 say ready\\n"); // as a controller does that has reset itself

    runJob("M3 S100\nG1 X1 F6000\nG1 X2\nG1 X3\n");

    EXPECT_TRUE(waitUntilStill());
    EXPECT_TRUE(isLaserOn());
    EXPECT_EQ(3, m_controller.getState("x"));
}

TEST_F(PrintServiceHazard, DeliberateQueuedMovesGoOnBehindAPause)
{
    startJob(makeMoves(40));
    EXPECT_TRUE(eventually([this] { return 12 <= m_controller.getState("lines"); }));

    EXPECT_EQ(0, service().pausePrint());

    EXPECT_TRUE(isLaserOn()); // the M5 has its place behind them
    EXPECT_TRUE(isMoving());
    EXPECT_TRUE(waitUntilStill());
    EXPECT_FALSE(isLaserOn());
    EXPECT_EQ(0, service().stopPrint());
    EXPECT_FALSE(isLaserOn());
}

TEST_F(PrintServiceHazard, DeliberateStopWaitsForASilentControllerWithTheLaserOn)
{
    m_controller.command("line 3 no-answer 2");
    startJob(makeMoves(5));
    EXPECT_TRUE(eventually([this] { return 3 <= m_controller.getState("lines"); }));
    const uint64_t u64Start = monotonicMs();
    std::atomic<bool> bStopped{false};
    std::thread stopper([this, &bStopped] {
        EXPECT_EQ(0, service().stopPrint());
        bStopped = true;
    });

    EXPECT_TRUE(eventually([u64Start] { return monotonicMs() > u64Start + 8000; }));
    EXPECT_TRUE(isLaserOn());
    EXPECT_FALSE(bStopped);

    stopper.join();
    EXPECT_LE(9900U, monotonicMs() - u64Start);
    EXPECT_FALSE(isLaserOn());
    EXPECT_FALSE(isMoving());
}

TEST_F(PrintServiceHazard, DeliberateEndOfAJobLeavesTheLaserOn)
{
    runJob("M3 S100\nG1 X1 F6000\n");

    EXPECT_TRUE(waitUntilStill());
    EXPECT_TRUE(isLaserOn());
}

TEST_F(PrintServiceHazard, DeliberateLastLineWithoutLineEndLeavesTheLaserOn)
{
    startJob("M3 S100\nG1 X1 F6000");
    EXPECT_TRUE(eventually([this] { return 1 == m_controller.getState("x"); }));

    EXPECT_TRUE(waitUntilStill());
    EXPECT_TRUE(isLaserOn());
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
}

TEST_F(PrintServiceHazard, DeliberatePauseByTheControllerLeavesTheLaserOn)
{
    m_controller.command("line 3 hold");
    startJob(makeMoves(5));

    EXPECT_TRUE(waitForState(PRINT_STATE_PAUSED));
    EXPECT_TRUE(isLaserOn());
    EXPECT_TRUE(waitForLines(8)); // the held line again
    EXPECT_TRUE(isLaserOn());
    EXPECT_EQ(0, service().stopPrint());
    EXPECT_EQ("M5", received().back());
    EXPECT_TRUE(isLaserOn()); // its place is behind the held moves
    m_controller.command("go");
    EXPECT_TRUE(waitUntilDark());
}

TEST_F(PrintServiceHazardCarefulArm, HoldAlarmAndResetAreDark)
{
    m_controller.command("line 3 hold");
    startJob(makeMoves(5));
    EXPECT_TRUE(waitForState(PRINT_STATE_PAUSED));
    EXPECT_FALSE(isLaserOn());
    m_controller.command("go");
    EXPECT_TRUE(eventually([this] { return isLaserOn(); }));

    m_controller.command("alarm-now 1");

    EXPECT_FALSE(isLaserOn());
    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED)); // it unlocks, and goes on dark
    EXPECT_TRUE(waitUntilStill());
    EXPECT_EQ(0, service().printSingleCmd("M3 S100", 7));
    EXPECT_TRUE(isLaserOn());
    EXPECT_EQ(0, service().resetStm32());
    EXPECT_TRUE(waitUntilDark());
}

TEST_F(PrintServiceHazardTiringArm, LaserGoesOffBehindAJobThatLeavesItOn)
{
    startJob("M3 S100\n");

    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));

    EXPECT_TRUE(waitUntilDark());
    EXPECT_EQ((Texts{"laser off"}), m_controller.readTexts("idle"));
}

TEST_F(PrintServiceHazardResettingArm, LaserGoesOffWhenThePortIsOpenedAgain)
{
    ASSERT_TRUE(eventually([this] { // its boot ends
        return 0 == service().printSingleCmd("M3 S100", 7) && isLaserOn();
    }));
    m_uart.close();
    EXPECT_TRUE(isLaserOn());

    EXPECT_EQ(1, m_uart.open(m_controller.getNode()));

    EXPECT_TRUE(waitUntilDark());
}

TEST_F(PrintServiceHazard, DeliberateLaserStaysOnWhileThePortIsFull)
{
    ASSERT_EQ(8, m_uart.send("M3 S100\n", 8, 0)); // its answer keeps the job from waiting for one
    saveJob(makeMoves(2));
    fillWire();
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForThread());

    EXPECT_EQ(0, service().stopPrint());
    EXPECT_TRUE(isLaserOn());
    const std::string strOutput = output();
    EXPECT_TRUE(contains(strOutput, "laser off could not be sent!\n")) << strOutput;
    m_controller.command("unstall");
    EXPECT_TRUE(eventually([this] {
        (void)service().stopPrint(); // the controller may be slow to make room
        return !isLaserOn();
    }));
    EXPECT_EQ("M5", received().back());
}

TEST_F(PrintServiceHazard, UploadInAJobSwitchesTheLaserOff)
{
    startJob(makeMoves(40));
    EXPECT_TRUE(eventually([this] { return 5 <= m_controller.getState("lines"); }));

    saveJob(makeMoves(1));

    EXPECT_EQ("M5", received().back());
    EXPECT_TRUE(waitUntilStill());
    EXPECT_FALSE(isLaserOn());
}

TEST_F(PrintServiceHazard, DeliberateFullDiskCutsTheJobWithTheLaserOn)
{
    {
        const FileSizeLimit limit(24);
        saveJob("M3 S100\nG1 X1 F6000\nG1 X20\nM5\n");
    }

    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(eventually([this] { return hasReceived("G1 X"); }));
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    EXPECT_TRUE(waitUntilStill());
    EXPECT_TRUE(isLaserOn());
    EXPECT_TRUE(contains(output(), "receive file successed!\n"));
}
