// Print jobs: the file, the walk line by line, progress, and lines that fail.
#include <thread>

#include "PrintJobFixture.h"
#include "PrintTest.h"
#include "Time.h"

namespace {

/** A long job with one fault at a time, and the wire that it has to give. */
class FaultyJob
{
public:
    explicit FaultyJob(VirtualController& controller) : m_controller(controller) {}

    /** The next line is answered as the commands say, one attempt each, and then taken. */
    void line(const std::string& strLine, const std::vector<std::string>& vecCommand = {})
    {
        m_strJob += strLine + "\n";
        for (const std::string& strCommand : vecCommand) {
            attempt(strLine, strCommand);
        }
        attempt(strLine, "");
    }

    /** One attempt of the last line; an empty command lets it pass. */
    void attempt(const std::string& strLine, const std::string& strCommand)
    {
        ++m_nLine;
        if (!strCommand.empty()) {
            const std::string strAt = "line " + std::to_string(m_nLine) + " ";
            EXPECT_EQ("ok", m_controller.command(strAt + strCommand));
        }
        m_strWire += strLine + "\n\n";
        if ("refuse 9" == strCommand || "refuse 2" == strCommand) {
            ++m_nLine;
            m_strWire += "$X\n";
        }
    }

    VirtualController& m_controller;
    std::string m_strJob;
    std::string m_strWire;
    int m_nLine = 0; // as the controller counts
};

class PrintJobLines : public PrintJobFixture
{
};

} // namespace

TEST_F(PrintJobLines, SaveKeepsTheFileAndMakesItReady)
{
    const uint64_t u64Start = monotonicMs();

    EXPECT_EQ(0, service().saveGcode("G1 X1\nG1\0X2\n", 12));

    EXPECT_LE(499U, monotonicMs() - u64Start);
    EXPECT_EQ(std::string("G1 X1\nG1\0X2\n", 12), m_folder.read("tmp.gcode"));
    EXPECT_EQ(PRINT_STATE_FILE_READY, service().getState());
    EXPECT_EQ("receive file successed!\n", output());
    EXPECT_EQ("", m_controller.readReceivedBytes());
}

TEST_F(PrintJobLines, DeliberateThreeLinesThenAnEmptyOne)
{
    runJob("G1 X1\nG1 X2\nG1 X3\n");

    EXPECT_TRUE(waitForWire("G1 X1\n\nG1 X2\n\nG1 X3\n\n\n"));
    EXPECT_FALSE(fileExists("tmp.gcode"));
    m_pService.reset();
    EXPECT_EQ("receive file successed!\n"
              "start working!\n"
              "send out:G1 X1\n\n"
              "send out:G1 X2\n\n"
              "send out:G1 X3\n\n"
              "print job finish!\n"
              "send out:\n",
              output());
}

TEST_F(PrintJobLines, JobOverwritesTheOneThatWaited)
{
    saveJob("G1 X1\nG1 X2\n");

    runJob("G1 X3\n");

    EXPECT_TRUE(waitForWire("G1 X3\n\n\n"));
}

TEST_F(PrintJobLines, SecondJobRunsAfterTheFirst)
{
    runJob("G1 X1\n");
    EXPECT_TRUE(waitForWire("G1 X1\n\n\n"));

    runJob("G1 X2\n");

    EXPECT_TRUE(waitForWire("G1 X1\n\n\nG1 X2\n\n\n"));
}

TEST_F(PrintJobLines, EmptyFileSendsTheEmptyLineOnly)
{
    runJob("");

    EXPECT_TRUE(waitForWire("\n"));
    EXPECT_FALSE(fileExists("tmp.gcode"));
    EXPECT_EQ(0.0F, progress()); // of nothing
}

TEST_F(PrintJobLines, LongLineGoesOutInPieces)
{
    std::string strLine = "G1 ";
    while (strLine.size() < 300) {
        strLine += "N01.0 ";
    }
    strLine.resize(300);

    runJob(strLine + "\nG1 X2\n");

    EXPECT_TRUE(
        waitForWire(strLine.substr(0, 255) + "\n" + strLine.substr(255) + "\n\nG1 X2\n\n\n"));
}

TEST_F(PrintJobLines, LineIsCutAtAZeroByte)
{
    const std::string strJob("G1 X1\0lost\nG1 X2\n", 17);

    runJob(strJob);

    EXPECT_TRUE(waitForWire("G1 X1\nG1 X2\n\n\n"));
}

TEST_F(PrintJobLines, DeliberateLastLineWithoutLineEndNeverFinishes)
{
    saveJob("G1 X1\nG1 X2");
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForWire("G1 X1\n\nG1 X2\n"));

    EXPECT_EQ(0, service().printLoop()); // what the thread does over and over
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    EXPECT_TRUE(fileExists("tmp.gcode"));
    EXPECT_EQ("G1 X1\n\nG1 X2\n", m_controller.readReceivedBytes());
    EXPECT_EQ(0, service().stopPrint());

    EXPECT_EQ(PRINT_STATE_STOPPED, service().getState());
    EXPECT_EQ("G1 X1\n\nG1 X2\nM5\n", m_controller.readReceivedBytes());
}

TEST_F(PrintJobLines, DeliberatePauseBehindTheLastLineDoesNotSpin)
{
    saveJob("G1 X1");
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForWire("G1 X1\n"));
    const clock_t before = clock();

    sleepFor(Time(0, 500000));

    EXPECT_GT(CLOCKS_PER_SEC / 4, clock() - before); // spinning takes half a second of it
    EXPECT_EQ(0, service().stopPrint());
}

TEST_F(PrintJobLines, LoopWithoutAFileDoesNothing)
{
    EXPECT_EQ(0, service().pausePrint()); // paused without ever having had a job
    (void)output();
    testing::internal::CaptureStdout();

    EXPECT_EQ(0, service().printLoop());

    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("M5\n", m_controller.readReceivedBytes());
}

TEST_F(PrintJobLines, ProgressAtEachStage)
{
    m_controller.command("line 2 hold"); // the second line stays under way
    EXPECT_EQ(0.0F, progress());
    saveJob("G1 X1\nG1 X2\nG1 X3\nG1 X4\n");
    EXPECT_EQ(0.0F, progress());
    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(waitForState(PRINT_STATE_PAUSED));
    EXPECT_EQ(0.25F, progress());
    m_controller.command("go");
    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_EQ(1.0F, progress());
    EXPECT_EQ(0, service().stopPrint());
    EXPECT_EQ(0.0F, progress());

    const std::string strOutput = output();
    EXPECT_TRUE(contains(strOutput, "persent 0.250000\n"));
    EXPECT_TRUE(contains(strOutput, "persent 1.000000\n"));
}

TEST_F(PrintJobLines, DeliberateShortSendLeavesTheJobStuckUntilStopped)
{
    const LogCapture log;
    saveJob("G1 X1\nG1 X2\n");
    fillWire();
    m_controller.command("say late\\n"); // keeps the read from waiting

    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(eventually([&log] {
        return 1 == log.count("[debug] [printservice/PrintService ] [printLoop] send: G1 X1\n\n"
                              " total bytes:7, but send 0 bytes\n");
    }));
    m_controller.command("unstall");
    EXPECT_TRUE(eventually([&log] { return contains(log.text(), "stop thread by myself"); }));
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    EXPECT_EQ(1, service().startPrint());
    EXPECT_EQ(0, service().stopPrint());
    const std::string strOutput = output();
    EXPECT_TRUE(contains(strOutput, "nWriteLength:-1\nsend failed!\n"));
    EXPECT_TRUE(contains(strOutput, "printer is working\n"));

    runJob("G1 X5\n");
    EXPECT_TRUE(
        eventually([this] { return contains(m_controller.readReceivedBytes(), "\nG1 X5\n\n\n"); }));
}

TEST_F(PrintJobLines, CableThatIsPulledInMidJobStopsIt)
{
    const LogCapture log;
    m_controller.command("line 5 unplug");
    saveJob(makeJob(20));

    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(eventually([&log] { return contains(log.text(), "stop thread by myself"); }));
    EXPECT_TRUE(contains(log.text(), "total bytes:" + std::to_string(makeLine(5).size() + 2) +
                                         ", but send 0 bytes\n"));
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    EXPECT_EQ(0, service().stopPrint());

    m_controller.command("plug");
    ASSERT_EQ(1, m_uart.open(m_controller.getNode()));
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    runJob("G1 X1\n");
    EXPECT_TRUE(
        eventually([this] { return contains(m_controller.readReceivedBytes(), "\nG1 X1\n\n\n"); }));
}

TEST_F(PrintJobLines, ProgressMayBeAskedFromAnotherThread)
{
    saveJob(makeJob(500));
    std::atomic<bool> bDone{false};
    std::thread asker([this, &bDone] {
        while (!bDone) {
            const float fProgress = progress();
            EXPECT_LE(0.0F, fProgress);
            EXPECT_GE(1.0F, fProgress);
            sleepFor(Time(0, 1000));
        }
    });

    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForEnd());

    bDone = true;
    asker.join();
    EXPECT_EQ(1.0F, progress());
}

TEST_F(PrintJobLines, TenThousandLinesArriveInOrderThroughEveryFault)
{
    FaultyJob job(m_controller);
    for (int i = 1; i <= 10000; ++i) {
        const std::string strLine = makeLine(i);
        switch (i) {
        case 1:
        case 4000:
            job.line(strLine, {"refuse 5"});
            break;
        case 500:
            job.line(strLine, {"refuse 9"});
            break;
        case 501:
            job.line(strLine, {"refuse 2", "refuse 7"});
            break;
        case 1500:
            job.line(strLine, {"half"});
            break;
        case 2500:
            job.line(strLine, {"garbage"});
            break;
        case 3000: // taken while paused: repeated until the controller goes on
            job.m_strJob += strLine + "\n";
            job.attempt(strLine, "status 1");
            job.attempt(strLine, "");
            job.attempt(strLine, "status 4");
            break;
        case 5000: // held at the panel: repeated every half second
            job.m_strJob += strLine + "\n";
            job.attempt(strLine, "hold");
            job.attempt(strLine, "");
            job.attempt(strLine, "go");
            break;
        case 6000: // told, but no pause
            job.m_strJob += strLine + "\n";
            job.attempt(strLine, "status 2");
            break;
        case 7000:
            job.m_strJob += strLine + "\n";
            job.attempt(strLine, "late 700");
            break;
        case 9999: // leaves an answer behind, so it comes last
            job.m_strJob += strLine + "\n";
            job.attempt(strLine, "double");
            break;
        default:
            job.line(strLine);
            break;
        }
    }

    saveJob(job.m_strJob);
    EXPECT_EQ(0, service().startPrint());
    const std::string strWire = job.m_strWire + "\n";
    size_t uBefore = 0;
    while (!eventually([&] { return m_controller.readReceivedBytes().size() >= strWire.size(); })) {
        const size_t uNow = m_controller.readReceivedBytes().size();
        ASSERT_LT(uBefore, uNow) << "a slow machine may take its time, but goes on";
        uBefore = uNow;
    }
    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(strWire == m_controller.readReceivedBytes());
    Texts vecFolded;
    for (const std::string& strLine : received()) {
        const bool bJobLine = !strLine.empty() && "$X" != strLine;
        if (bJobLine && (vecFolded.empty() || strLine != vecFolded.back())) {
            vecFolded.push_back(strLine);
        }
    }
    ASSERT_EQ(10000U, vecFolded.size());
    for (int i = 1; i <= 10000; ++i) {
        ASSERT_EQ(makeLine(i), vecFolded[static_cast<size_t>(i - 1)]);
    }
}
