// Uploads while a job is open or ends, and the progress through them.
#include <atomic>
#include <set>
#include <thread>

#include "PrintTest.h"

namespace {

class PrintServiceJobUpload : public PrintTest
{
protected:
    static std::string makeLine(const std::string& strName, int nNumber)
    {
        return "G1 X" + std::to_string(nNumber % 100) + " F60000 (" + strName +
               std::to_string(nNumber) + ")";
    }

    static std::string makeJob(const std::string& strName, int nLines)
    {
        std::string strJob;
        for (int i = 1; i <= nLines; ++i) {
            strJob += makeLine(strName, i) + "\n";
        }
        return strJob;
    }

    /** Lines received that hold a text, each once. */
    size_t countDifferent(const std::string& strPart)
    {
        std::set<std::string> setLine;
        for (const std::string& strLine : received()) {
            if (contains(strLine, strPart)) {
                setLine.insert(strLine);
            }
        }
        return setLine.size();
    }

    /** Lines received that hold a text. */
    size_t count(const std::string& strPart)
    {
        size_t uCount = 0;
        for (const std::string& strLine : received()) {
            uCount += contains(strLine, strPart) ? 1 : 0;
        }
        return uCount;
    }
};

} // namespace

TEST_F(PrintServiceJobUpload, WhileAJobEndsIsKept)
{
    m_controller.command("line 59 late 200");
    saveJob(makeJob("A", 60));
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(eventually([this] { return 58 <= m_controller.getState("lines"); }));

    saveJob("G1 X7\nG1 X8\n");

    EXPECT_EQ(PRINT_STATE_FILE_READY, service().getState());
    EXPECT_EQ("G1 X7\nG1 X8\n", m_folder.read("tmp.gcode"));
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(eventually(
        [this] { return contains(m_controller.readReceivedBytes(), "\nG1 X7\n\nG1 X8\n\n\n"); }));
}

TEST_F(PrintServiceJobUpload, OverAJobEndsItWithTheLaserOff)
{
    saveJob("M3 S100\n" + makeJob("A", 20000));
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(eventually([this] { return 100 <= m_controller.getState("lines"); }));

    saveJob(makeJob("B", 20000));

    EXPECT_EQ(PRINT_STATE_FILE_READY, service().getState());
    EXPECT_EQ("M5", received().back());
    EXPECT_EQ(0U, count("(B"));
    EXPECT_EQ(0, m_controller.getState("laser"));
    EXPECT_EQ(0.0F, progress());
    // Every line of the old job is whole.
    int nNext = 1;
    for (const std::string& strLine : received()) {
        if (contains(strLine, "X")) {
            EXPECT_EQ(makeLine("A", nNext++), strLine);
        }
    }
}

TEST_F(PrintServiceJobUpload, OverAPausedJobEndsItToo)
{
    m_controller.command("line 100 late 500");
    saveJob(makeJob("A", 3000));
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(eventually([this] { return 100 <= count("(A"); }));
    EXPECT_EQ(0, service().pausePrint());
    const size_t uOld = countDifferent("(A");

    saveJob("G1 X1 (B1)\nG1 X2 (B2)\n");
    EXPECT_EQ(PRINT_STATE_FILE_READY, service().getState());
    const Texts vecBefore = received();
    EXPECT_EQ((Texts{"M5", "M5"}), Texts(vecBefore.end() - 2, vecBefore.end()));
    EXPECT_EQ(0, service().pausePrint());
    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(eventually([this] {
        return contains(m_controller.readReceivedBytes(),
                        "M5\nM5\nM5\nG1 X1 (B1)\n\nG1 X2 (B2)\n\n\n");
    }));
    EXPECT_EQ(uOld, countDifferent("(A"));
}

TEST_F(PrintServiceJobUpload, OverAJobThatCouldNotStartSwitchesOffToo)
{
    EXPECT_EQ(1, service().startPrint()); // no file: printing without a job

    saveJob("G1 X1\n");

    EXPECT_EQ("M5\n", m_controller.readReceivedBytes());
    EXPECT_EQ(PRINT_STATE_FILE_READY, service().getState());
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
}

TEST_F(PrintServiceJobUpload, WithoutAnOpenJobSendsNothing)
{
    saveJob("G1 X1\n");
    saveJob("G1 X2\n");

    EXPECT_EQ("", m_controller.readReceivedBytes());
    runJob("G1 X3\n");
    EXPECT_TRUE(eventually([this] { return "G1 X3\n\n\n" == m_controller.readReceivedBytes(); }));
}

TEST_F(PrintServiceJobUpload, StartedBeforeItIsOverRunsTheNewFile)
{
    std::thread saver([this] { saveJob("G1 X1\nG1 X2\n"); });
    EXPECT_TRUE(eventually([] { return fileExists("tmp.gcode"); }));
    m_controller.command("line 2 late 1000");

    EXPECT_EQ(0, service().startPrint());

    saver.join();
    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(
        eventually([this] { return "G1 X1\n\nG1 X2\n\n\n" == m_controller.readReceivedBytes(); }));
}

TEST_F(PrintServiceJobUpload, ProgressIsZeroBeforeTheNewJobRuns)
{
    runJob("G1 X1\nG1 X2\nG1 X3\nG1 X4\n");
    EXPECT_EQ(1.0F, progress());

    saveJob("G1 X1\n");
    EXPECT_EQ(0.0F, progress());
    saveJob("G1 X1\nG1 X2\nG1 X3\nG1 X4\nG1 X5\nG1 X6\n");
    EXPECT_EQ(0.0F, progress());
}

TEST_F(PrintServiceJobUpload, ProgressStaysBetweenZeroAndOneThroughJobsOfAnySize)
{
    std::atomic<bool> bDone{false};
    std::thread asker([this, &bDone] {
        while (!bDone) {
            const float fProgress = progress();
            EXPECT_LE(0.0F, fProgress); // not for what is no number either
            EXPECT_GE(1.0F, fProgress);
            sleepFor(Time(0, 200));
        }
    });

    for (const int nLines : {500, 1, 0, 200, 2}) {
        runJob(makeJob("A", nLines));
    }

    bDone = true;
    asker.join();
}
