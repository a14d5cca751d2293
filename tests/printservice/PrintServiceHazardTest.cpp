// What the laser and the arm do when something goes wrong, with the service alone. What is called
// Deliberate is not safe, but as agreed: docs/serial.md has the table.
#include <algorithm>
#include <atomic>
#include <csignal>
#include <set>
#include <thread>

#include <pty.h>
#include <sys/resource.h>

#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "PrintTest.h"

namespace {

/** An arm at its real speed, with its reset line and without a care for the laser. */
class PrintServiceHazard : public PrintTest
{
protected:
    explicit PrintServiceHazard(const Texts& vecHabit = {"--alarm-keeps-laser",
                                                         "--hold-keeps-laser", "--reset-laser-on"})
        : PrintTest(makeOptions(vecHabit))
    {
    }

    static Texts makeOptions(Texts vecOption)
    {
        vecOption.insert(vecOption.end(), {"--gpio", "/sys/class/gpio", "--boot-ms", "100"});
        return vecOption;
    }

    /** The laser on, then moves of 0.2 s each. */
    static std::string makeMoves(int nMoves)
    {
        std::string strJob = "M3 S100\n";
        for (int i = 0; i < nMoves; ++i) {
            strJob += (0 == i % 2) ? "G1 X20 F6000\n" : "G1 X0 F6000\n";
        }
        return strJob;
    }

    void startJob(const std::string& strJob)
    {
        saveJob(strJob);
        EXPECT_EQ(0, service().startPrint());
    }

    bool isLaserOn()
    {
        return 1 == m_controller.getState("laser");
    }

    bool isMoving()
    {
        return 1 == m_controller.getState("moving");
    }

    bool waitUntilDark()
    {
        return eventually([this] { return !isLaserOn(); });
    }

    bool waitUntilStill()
    {
        return eventually([this] { return !isMoving(); });
    }

    bool hasReceived(const std::string& strLine)
    {
        const Texts vecLine = received();
        return vecLine.end() != std::find(vecLine.begin(), vecLine.end(), strLine);
    }

    /** Wait until the job's thread has stopped itself. */
    bool waitForThread()
    {
        return eventually([this] { return contains(m_log.text(), "stop thread by myself"); });
    }

    LogCapture m_log;
};

/** A controller that takes care of the laser itself. */
class PrintServiceHazardCarefulArm : public PrintServiceHazard
{
protected:
    PrintServiceHazardCarefulArm() : PrintServiceHazard(Texts{}) {}
};

/** One that answers every line end, and takes its time for that. */
class PrintServiceHazardAnsweringArm : public PrintServiceHazard
{
protected:
    PrintServiceHazardAnsweringArm()
        : PrintServiceHazard({"--answer-empty-lines", "--answer-ms", "40"})
    {
    }
};

/** One that tells what it does while it moves. */
class PrintServiceHazardTellingArm : public PrintServiceHazard
{
protected:
    PrintServiceHazardTellingArm() : PrintServiceHazard({"--status-ms", "50"}) {}
};

/** One that switches the laser off when it hears nothing. */
class PrintServiceHazardTiringArm : public PrintServiceHazard
{
protected:
    PrintServiceHazardTiringArm() : PrintServiceHazard({"--idle-off-ms", "300"}) {}
};

/** One that is reset by who opens its port. */
class PrintServiceHazardResettingArm : public PrintServiceHazard
{
protected:
    PrintServiceHazardResettingArm() : PrintServiceHazard({"--reset-on-open"}) {}
};

/** A controller that answers as the test says, line by line. */
class ScriptedController
{
public:
    /** @param vecAnswer  what is sent when the first, second ... line has come; then always "ok" */
    explicit ScriptedController(std::vector<std::string> vecAnswer)
        : m_vecAnswer(std::move(vecAnswer))
    {
        char acPath[64] = {0};
        EXPECT_EQ(0, openpty(&m_nMaster, &m_nSlave, acPath, nullptr, nullptr));
        EXPECT_EQ(1, m_uart.open(acPath));
        m_thread = std::thread([this] { answer(); });
    }
    ScriptedController(const ScriptedController&) = delete;
    ScriptedController& operator=(const ScriptedController&) = delete;
    ~ScriptedController()
    {
        EXPECT_EQ(5, m_uart.send("quit\n", 5, 0));
        m_thread.join();
        m_uart.close();
        close(m_nSlave);
        close(m_nMaster);
    }

    /** The lines so far that are not empty. */
    std::vector<std::string> lines()
    {
        const std::lock_guard<std::mutex> guard(m_mtx);
        return m_vecLine;
    }

    UART m_uart;

private:
    void answer()
    {
        std::string strLine;
        char c = 0;
        while (1 == read(m_nMaster, &c, 1)) {
            if ('\n' != c) {
                strLine += c;
                continue;
            }
            if ("quit" == strLine) {
                return;
            }
            if (!strLine.empty()) {
                const std::lock_guard<std::mutex> guard(m_mtx);
                const size_t uLine = m_vecLine.size();
                m_vecLine.push_back(strLine);
                const std::string strAnswer =
                    (uLine < m_vecAnswer.size()) ? m_vecAnswer[uLine] : "ok\n";
                EXPECT_EQ(static_cast<ssize_t>(strAnswer.size()),
                          write(m_nMaster, strAnswer.data(), strAnswer.size()));
            }
            strLine.clear();
        }
    }

    const std::vector<std::string> m_vecAnswer;
    int m_nMaster = -1;
    int m_nSlave = -1;
    std::mutex m_mtx; // guards the lines
    std::vector<std::string> m_vecLine;
    std::thread m_thread;
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

TEST_F(PrintServiceHazard, DeliberateJobUnlocksAndGoesOnAfterAnAlarm)
{
    m_controller.command("line 2 alarm 1");

    runJob("M3 S100\nG1 X1 F6000\nG1 X2\n");

    EXPECT_EQ(0U, m_controller.readReceivedBytes().find("M3 S100\n\nG1 X1 F6000\n\n"
                                                        "G1 X1 F6000\n\n$X\nG1 X1 F6000\n\n"));
    EXPECT_TRUE(eventually([this] { return 2 == m_controller.getState("x"); }));
    EXPECT_TRUE(isLaserOn());
}

TEST_F(PrintServiceHazard, DeliberateUnansweredLineIsCarriedOutTwice)
{
    m_controller.command("line 3 no-answer"); // carried out all the same

    runJob("M3 S100\nG91\nG1 X1 F6000\n");

    EXPECT_TRUE(waitUntilStill());
    EXPECT_EQ(2, m_controller.getState("x"));
    EXPECT_TRUE(isLaserOn());
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

TEST_F(PrintServiceHazardAnsweringArm, DeliberateAnsweredLineEndsLoseARefusedLineAndRepeatAnother)
{
    m_controller.command("line 7 refuse 5"); // the fourth, each with an empty line behind it

    runJob("G1 X1 F60000\nG1 X2\nG1 X3\nG1 X4\nG1 X5\nG1 X6\nG1 X7\nG1 X8\n");

    Texts vecLine = received();
    vecLine.erase(std::remove(vecLine.begin(), vecLine.end(), ""), vecLine.end());
    EXPECT_EQ((Texts{"G1 X1 F60000", "G1 X2", "G1 X3", "G1 X4", "G1 X5", "G1 X6", "G1 X7", "G1 X7",
                     "G1 X8"}),
              vecLine);
}

TEST_F(PrintServiceHazardTellingArm, DeliberateLineThatWaitsIsRepeatedForAStatusAlone)
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

TEST_F(PrintServiceHazard, TakenLineMovesTheArmTwiceASecondWhilePaused)
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

TEST_F(PrintServiceHazard, DeliberateMoveInTheMiddleOfAJobGoesOut)
{
    startJob(makeMoves(60));
    EXPECT_TRUE(eventually([this] { return isMoving(); }));
    std::thread publisher([] {
        MoveLaserEvent event(1, 1);
        EventBus<MoveLaserEvent>::publish(event);
    });

    EXPECT_TRUE(eventually([this] { return hasReceived("$H"); }));

    EXPECT_TRUE(isLaserOn());
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    m_controller.command("unplug"); // ends the waiting for replies that the job has taken
    publisher.join();
}

TEST_F(PrintServiceHazard, DeliberateMoveGoesOutAlthoughHomingWasRefused)
{
    m_controller.command("line 1 refuse 5");
    m_controller.command("say done\\n"); // a refused line has no second answer to wait for

    MoveLaserEvent event(12.5F, -3);
    EventBus<MoveLaserEvent>::publish(event);

    EXPECT_TRUE(eventually([this] { return -12.5 == m_controller.getState("x"); }));
    EXPECT_TRUE(waitUntilStill());
    EXPECT_EQ(0, m_controller.getState("homed"));
}

TEST_F(PrintServiceHazard, DeliberateNumbersOutsideTheFieldGoOut)
{
    m_controller.command("say done\\n"); // a refused move has no second answer to wait for
    MeasureEvent event(1e38F);

    EventBus<MeasureEvent>::publish(event);

    EXPECT_EQ(0U, received().at(0).find("G05 Z-99999996"));
    EXPECT_FALSE(isMoving()); // this controller refuses
}

TEST_F(PrintServiceHazard, DeliberateTailOfALongCommentIsACommand)
{
    EXPECT_EQ(0, service().printSingleCmd("M5", 2));
    const std::string strComment = "(" + std::string(254, 'c'); // as much as one piece holds

    runJob(strComment + "M3 S1000 (to be left out)\n");

    EXPECT_TRUE(waitForLines(4));
    EXPECT_EQ("M3 S1000 (to be left out)", received().at(2));
    EXPECT_TRUE(isLaserOn());
    EXPECT_FALSE(isMoving());
}

TEST_F(PrintServiceHazard, DeliberateAnswerTooManyLosesARefusedLine)
{
    // One "ok" too many behind the second line: from then on each answer belongs to the line
    // before.
    ScriptedController controller({"ok\n", "ok\n", "ok\n", "ok\n", "error:5\n"});
    service().setUart(&controller.m_uart);

    runJob("G1 X1\nG1 X2\nG1 X3\nG1 X4\nG1 X5\nG1 X6\n"); // it is the fourth that is refused

    EXPECT_TRUE(eventually([&controller] { return 7 <= controller.lines().size(); }));
    EXPECT_EQ((Texts{"G1 X1", "G1 X2", "G1 X3", "G1 X4", "G1 X5", "G1 X5", "G1 X6"}),
              controller.lines());
    EXPECT_TRUE(waitForThread()); // the port goes with the controller
    service().setUart(&m_uart);
}

TEST_F(PrintServiceHazard, DeliberateFullDiskCutsTheJobWithTheLaserOn)
{
    struct sigaction ignore
    {
    };
    struct sigaction former
    {
    };
    ignore.sa_handler = SIG_IGN;
    ASSERT_EQ(0, sigaction(SIGXFSZ, &ignore, &former));
    rlimit unlimited{};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &unlimited));
    const rlimit tight{24, unlimited.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &tight));
    saveJob("M3 S100\nG1 X1 F6000\nG1 X20\nM5\n");
    EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &unlimited));
    EXPECT_EQ(0, sigaction(SIGXFSZ, &former, nullptr));

    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(eventually([this] { return hasReceived("G1 X"); }));
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    EXPECT_TRUE(waitUntilStill());
    EXPECT_TRUE(isLaserOn());
    EXPECT_TRUE(contains(output(), "receive file successed!\n"));
}
