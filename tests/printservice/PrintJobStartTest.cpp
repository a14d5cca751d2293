// Print jobs: starting, pausing, stopping, and the thread that parks.
#include <algorithm>
#include <chrono>
#include <sstream>
#include <thread>

#include <fcntl.h>

#include "Descriptors.h"
#include "PrintJobFixture.h"
#include "PrintTest.h"
#include "Threads.h"

namespace {

class PrintJobStart : public PrintJobFixture
{
};

} // namespace

TEST_F(PrintJobStart, JobRunsOnItsThreadAndItsFileIsNotInherited)
{
    m_controller.command("line 1 hold");
    saveJob("G1 X1\n");
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForState(PRINT_STATE_PAUSED)); // so that "go" comes behind the hold

    EXPECT_EQ(1, countThreads("printservice"));
    const auto mapOpen = openDescriptors("/tmp.gcode");
    ASSERT_EQ(1U, mapOpen.size());
    EXPECT_EQ(FD_CLOEXEC, fcntl(mapOpen.begin()->first, F_GETFD));
    m_controller.command("go");
    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
}

TEST_F(PrintJobStart, StartTwiceIsRefused)
{
    m_controller.command("line 1 late 700");
    saveJob("G1 X1\nG1 X2\n");
    EXPECT_EQ(0, service().startPrint());

    EXPECT_EQ(1, service().startPrint());

    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(waitForWire("G1 X1\n\nG1 X2\n\n\n"));
    EXPECT_TRUE(contains(output(), "printer is working\n"));
}

TEST_F(PrintJobStart, OfTwoStartsAtOnceOneIsRefused)
{
    service().setUart(nullptr); // a start goes no further than the port
    const int ROUNDS = 2000;
    std::atomic<int> nReady{0};
    auto start = [this, &nReady](int nRound) {
        ++nReady;
        while (nReady < 2 * nRound) {
        }
        (void)service().startPrint();
    };

    for (int nRound = 1; nRound <= ROUNDS; ++nRound) {
        std::thread other([&start, nRound] { start(nRound); });
        start(nRound);
        other.join();
        EXPECT_EQ(0, service().stopPrint());
    }

    std::istringstream stream(output());
    int nWorking = 0;
    int nRefused = 0;
    for (std::string strLine; std::getline(stream, strLine);) {
        nWorking += ("start working!" == strLine) ? 1 : 0;
        nRefused += ("printer is working" == strLine) ? 1 : 0;
    }
    EXPECT_EQ(ROUNDS, nWorking);
    EXPECT_EQ(ROUNDS, nRefused);
}

TEST_F(PrintJobStart, StartWhenPausedWithoutAJobStartsTheOneThatWaits)
{
    saveJob("G1 X1\nG1 X2\n");
    EXPECT_EQ(0, service().pausePrint());
    EXPECT_EQ(PRINT_STATE_PAUSED, service().getState());

    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(waitForWire("M5\nG1 X1\n\nG1 X2\n\n\n"));
    EXPECT_TRUE(contains(output(), "start working!\n"));
}

TEST_F(PrintJobStart, PauseAtTheEndLeavesNoJobToGoOnWith)
{
    m_controller.command("line 2 late 1500"); // the empty line
    saveJob("G1 X1\n");
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForLines(3));
    EXPECT_EQ(0, service().pausePrint());
    EXPECT_EQ(PRINT_STATE_PAUSED, service().getState());

    EXPECT_EQ(1, service().startPrint()); // there is no file

    EXPECT_TRUE(contains(output(), "open gcode failed!\n"));
    saveJob("G1 X2\n");
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(waitForWire("G1 X1\n\n\nM5\nM5\nG1 X2\n\n\n"));
}

TEST_F(PrintJobStart, DeliberateStartWithoutAFileStaysStuckUntilStopped)
{
    EXPECT_EQ(1, service().startPrint());
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    EXPECT_EQ(1, service().startPrint());

    EXPECT_EQ(0, service().stopPrint());

    EXPECT_EQ(PRINT_STATE_STOPPED, service().getState());
    EXPECT_EQ("M5\n", m_controller.readReceivedBytes());
    EXPECT_EQ("start working!\nopen gcode failed!\nprinter is working\nM5\n\nsend length:3\n",
              output());
    runJob("G1 X1\n");
    EXPECT_TRUE(waitForWire("M5\nG1 X1\n\n\n"));
}

TEST_F(PrintJobStart, PauseAndGoOnLosesAndRepeatsNothing)
{
    const int LINES = 3000;
    saveJob(makeJob(LINES));
    EXPECT_EQ(0, service().startPrint());

    for (int nPause = 1; nPause <= 3; ++nPause) {
        // Not by the journal, whose reading may take longer than the rest of the job.
        ASSERT_TRUE(eventually([this, nPause] { return progress() >= 0.1F * nPause; }));
        EXPECT_EQ(0, service().pausePrint());
        EXPECT_EQ(PRINT_STATE_PAUSED, service().getState());
        const size_t uLines = received().size();
        EXPECT_EQ("M5", received().back());
        EXPECT_LT(0.0F, progress());
        EXPECT_GT(1.0F, progress());
        EXPECT_EQ(uLines, received().size());
        EXPECT_EQ(0, service().startPrint());
        EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    }

    EXPECT_TRUE(waitForEnd());
    EXPECT_TRUE(waitForLines(2 * LINES + 3 + 1));
    size_t uPauses = 0;
    for (const std::string& strLine : received()) {
        uPauses += ("M5" == strLine) ? 1 : 0;
    }
    EXPECT_EQ(3U, uPauses);
    const Texts vecLine = m_controller.readJobLines();
    ASSERT_EQ(static_cast<size_t>(LINES), vecLine.size());
    for (int i = 1; i <= LINES; ++i) {
        std::string strLine = makeLine(i);
        strLine.erase(std::remove(strLine.begin(), strLine.end(), ' '), strLine.end());
        ASSERT_EQ(strLine, vecLine[static_cast<size_t>(i - 1)]);
    }
}

TEST_F(PrintJobStart, StopEndsTheJobAndTheNextOneBeginsAtItsStart)
{
    saveJob(makeJob(20000));
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForLines(100));

    EXPECT_EQ(0, service().stopPrint());

    EXPECT_EQ(PRINT_STATE_STOPPED, service().getState());
    EXPECT_EQ(0.0F, progress());
    const Texts vecLine = received();
    EXPECT_EQ("M5", vecLine.back());
    EXPECT_GT(40000U, vecLine.size());
    EXPECT_TRUE(fileExists("tmp.gcode")); // only the end of a job removes it
    runJob("G1 X1\n");
    EXPECT_TRUE(waitForLines(vecLine.size() + 3));
    const Texts vecAll = received();
    EXPECT_EQ((Texts{"G1 X1", "", ""}), Texts(vecAll.end() - 3, vecAll.end()));
}

TEST_F(PrintJobStart, StopIsHarmlessAtAnyTime)
{
    EXPECT_EQ(0, service().stopPrint());
    EXPECT_EQ(0, service().stopPrint());
    runJob("G1 X1\n");
    EXPECT_TRUE(waitForWire("M5\nM5\nG1 X1\n\n\n"));

    EXPECT_EQ(0, service().stopPrint());

    EXPECT_EQ("M5\nM5\nG1 X1\n\n\nM5\n", m_controller.readReceivedBytes());
}

TEST_F(PrintJobStart, StartThatComesAfterTheWishToStopCancelsIt)
{
    const LogCapture log;
    m_controller.command("line 2 late 5000"); // the empty line at the end of the first job
    saveJob("G1 X1\n");
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(eventually([] { return !fileExists("tmp.gcode"); }));

    startJob("G1 X2\n"); // while the thread still waits for its last reply

    EXPECT_TRUE(waitForWire("G1 X1\n\n\nG1 X2\n\n\n"));
    EXPECT_TRUE(eventually([&log] { return contains(log.text(), "stop thread by myself"); }));
    size_t uParked = 0;
    for (const std::string& strLine : log.lines()) {
        uParked += contains(strLine, "stop thread by myself") ? 1 : 0;
    }
    EXPECT_EQ(1U, uParked);
}

TEST_F(PrintJobStart, DeliberateFileIsGoneOnceTheStateIsStopped)
{
    for (int i = 0; i < 200; ++i) {
        startJob("G1 X1\n");
        // Without a pause: the file is looked for at the very moment of the new state.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (PRINT_STATE_PRINTING == service().getState() &&
               std::chrono::steady_clock::now() < deadline) {
        }
        ASSERT_EQ(PRINT_STATE_STOPPED, service().getState()) << i;
        ASSERT_FALSE(fileExists("tmp.gcode")) << i;
    }
}

TEST_F(PrintJobStart, StartThatComesAfterTheThreadHasParkedWakesIt)
{
    const LogCapture log;
    runJob("G1 X1\n");
    EXPECT_TRUE(eventually([&log] { return contains(log.text(), "stop thread by myself"); }));

    startJob("G1 X2\n");

    EXPECT_TRUE(waitForWire("G1 X1\n\n\nG1 X2\n\n\n"));
}

TEST_F(PrintJobStart, StartsAtTheMomentOfParkingAreNeverLost)
{
    std::string strWire;
    for (int i = 1; i <= 300; ++i) {
        startJob("G1 X1\n");
        strWire += "G1 X1\n\n\n";
        ASSERT_TRUE(eventually([this] {
            return PRINT_STATE_STOPPED == service().getState() && !fileExists("tmp.gcode");
        })) << i;
        if (0 == i % 3) { // now and then wait for the last reply, when the thread goes to park
            ASSERT_TRUE(waitForWire(strWire)) << i;
        }
    }

    EXPECT_TRUE(waitForWire(strWire));
}

TEST_F(PrintJobStart, WishAskedAfterTheStartHolds)
{
    const LogCapture log;
    m_controller.command("line 1 late 2000"); // or the job might be over before the pause
    saveJob("G1 X1\nG1 X2\n");
    EXPECT_EQ(0, service().startPrint());
    EXPECT_EQ(0, service().pausePrint());
    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));

    EXPECT_TRUE(eventually([&log] { return contains(log.text(), "stop thread by myself"); }));
}

TEST_F(PrintJobStart, ServiceMayGoInTheMiddleOfAJob)
{
    saveJob(makeJob(20000));
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForLines(10));

    m_pService.reset();

    EXPECT_GT(40000U, received().size());
}
