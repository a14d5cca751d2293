// The job's file: what stays readable, what is removed, and how far the reading has come.
#include "JobFile.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptors.h"
#include "FileSizeLimit.h"
#include "ScratchFolder.h"

namespace {

/** A job file in a scratch working directory. */
class JobFileInFolder : public JobFile
{
public:
    JobFileInFolder()
    {
        EXPECT_EQ(0, chdir(m_folder.path().c_str()));
    }
    JobFileInFolder(const JobFileInFolder&) = delete;
    JobFileInFolder& operator=(const JobFileInFolder&) = delete;
    ~JobFileInFolder()
    {
        EXPECT_EQ(0, chdir("/"));
    }

    void saveText(const std::string& strText)
    {
        save(strText.data(), static_cast<int>(strText.size()));
    }

    std::string nextText()
    {
        char acLine[32] = {0};
        m_eLast = nextLine(acLine, sizeof(acLine));
        return acLine;
    }

    ScratchFolder m_folder;
    JOB_LINE_E m_eLast = JOB_LINE_NONE;
};

} // namespace

TEST(JobFile, OpenJobReadsOnInItsOwnFile)
{
    JobFileInFolder job;
    std::string strLong; // more than a stream's buffer holds
    for (int i = 0; i < 10000; ++i) {
        strLong += "G1 X1\n";
    }
    job.saveText(strLong);
    ASSERT_TRUE(job.open());
    EXPECT_EQ("G1 X1\n", job.nextText());

    job.saveText("G1 X2\n");

    int nLines = 1;
    while ("G1 X1\n" == job.nextText()) {
        ++nLines;
    }
    EXPECT_EQ(10000, nLines);
    EXPECT_EQ(JOB_LINE_END, job.m_eLast);
}

TEST(JobFile, JobOfOneByteIsKeptAndItsEndIsAProgressOfOne)
{
    JobFileInFolder job;
    job.saveText("\n");
    ASSERT_TRUE(job.open());

    EXPECT_EQ("\n", job.nextText());
    EXPECT_EQ(0.0F, job.getProgress());
    EXPECT_EQ("", job.nextText());

    EXPECT_EQ(JOB_LINE_END, job.m_eLast);
    EXPECT_EQ(1.0F, job.getProgress());
}

TEST(JobFile, OpenClosesTheJobThatWasStillOpen)
{
    JobFileInFolder job;
    job.saveText("G1 X1\n");
    ASSERT_TRUE(job.open());

    ASSERT_TRUE(job.open());

    EXPECT_EQ(1U, openDescriptors("tmp.gcode").size());
}

TEST(JobFile, EndRemovesTheFileThatWasRead)
{
    JobFileInFolder job;
    job.saveText("G1 X1\n");
    ASSERT_TRUE(job.open());

    EXPECT_EQ("G1 X1\n", job.nextText());
    EXPECT_TRUE(job.exists());
    EXPECT_TRUE(job.isOpen());
    EXPECT_EQ("", job.nextText());

    EXPECT_EQ(JOB_LINE_END, job.m_eLast);
    EXPECT_FALSE(job.exists());
    EXPECT_FALSE(job.isOpen());
    EXPECT_EQ("", job.nextText());
    EXPECT_EQ(JOB_LINE_NONE, job.m_eLast);
}

TEST(JobFile, EndKeepsTheNextJob)
{
    JobFileInFolder job;
    job.saveText("G1 X1\n");
    ASSERT_TRUE(job.open());
    EXPECT_EQ("G1 X1\n", job.nextText());

    job.saveText("G1 X2\n");
    EXPECT_EQ("", job.nextText());

    EXPECT_EQ(JOB_LINE_END, job.m_eLast);
    EXPECT_EQ("G1 X2\n", job.m_folder.read("tmp.gcode"));
}

TEST(JobFile, EndWithoutItsFileIsHarmless)
{
    JobFileInFolder job;
    job.saveText("");
    ASSERT_TRUE(job.open());
    ASSERT_EQ(0, unlink("tmp.gcode"));

    EXPECT_EQ("", job.nextText());

    EXPECT_EQ(JOB_LINE_END, job.m_eLast);
}

TEST(JobFile, SavingLeavesNothingBeside)
{
    JobFileInFolder job;

    job.saveText("G1 X1\n");

    EXPECT_EQ("G1 X1\n", job.m_folder.read("tmp.gcode"));
    const std::filesystem::directory_iterator files(job.m_folder.path());
    EXPECT_EQ(1, std::distance(begin(files), end(files)));
}

TEST(JobFile, FormerJobIsGoneWhenTheNewFileCannotBeMade)
{
    JobFileInFolder job;
    job.saveText("G1 X1\n");
    std::filesystem::create_directory(job.m_folder.path() / "tmp.gcode.new");

    job.saveText("G1 X2\n");

    EXPECT_FALSE(job.exists()) << "a start would burn the former job";
}

TEST(JobFile, LineIsGivenOutAgainAfterSeekingBack)
{
    JobFileInFolder job;
    job.saveText("G1 X1\nG1 X2\n");
    ASSERT_TRUE(job.open());
    EXPECT_EQ("G1 X1\n", job.nextText());
    EXPECT_EQ("G1 X2\n", job.nextText());

    job.seekBack();

    EXPECT_EQ("G1 X2\n", job.nextText());
}

TEST(JobFile, ProgressIsTheShareBeforeTheLineUnderWay)
{
    JobFileInFolder job;
    EXPECT_EQ(0.0F, job.getProgress());
    job.saveText("G1 X1\nG1 X2\nG1 X3\nG1 X4\n");
    ASSERT_TRUE(job.open());

    (void)job.nextText();
    EXPECT_EQ(0.0F, job.getProgress());
    (void)job.nextText();
    EXPECT_EQ(0.25F, job.getProgress());
    job.restart();
    EXPECT_EQ(0.0F, job.getProgress());
}

TEST(JobFile, OpenBeginsTheProgressAnew)
{
    JobFileInFolder job;
    job.saveText("G1 X1\nG1 X2\n");
    ASSERT_TRUE(job.open());
    (void)job.nextText();
    (void)job.nextText();
    EXPECT_EQ(0.5F, job.getProgress());

    ASSERT_TRUE(job.open());
    EXPECT_EQ(0.0F, job.getProgress());

    std::ofstream("tmp.gcode") << "G1 X1\nG1 X2\nG1 X3\nG1 X4\n"; // longer than was measured
    ASSERT_TRUE(job.open());
    (void)job.nextText();
    (void)job.nextText();
    EXPECT_EQ(0.25F, job.getProgress());
}

TEST(JobFile, DestructorClosesTheOpenJob)
{
    const JobFileInFolder folder;
    const int nFree = dup(STDERR_FILENO); // the number that the next file gets
    close(nFree);
    {
        JobFile job;
        job.save("G1 X1\n", 6);
        ASSERT_TRUE(job.open());
        EXPECT_NE(-1, fcntl(nFree, F_GETFD));
    }

    EXPECT_EQ(-1, fcntl(nFree, F_GETFD));
}

TEST(JobFile, OfSeveralSavesAtOnceOneIsKeptWhole)
{
    JobFileInFolder job;
    const std::string strFirst(20000, 'a');
    const std::string strSecond(30000, 'b');

    for (int nRound = 0; nRound < 200; ++nRound) {
        std::thread other([&] { job.saveText(strFirst); });
        job.saveText(strSecond);
        other.join();

        const std::string strKept = job.m_folder.read("tmp.gcode");
        ASSERT_TRUE(strFirst == strKept || strSecond == strKept) << strKept.size();
    }
}

TEST(JobFile, ProgressOfNothingIsZero)
{
    JobFileInFolder job;
    job.saveText("");

    EXPECT_TRUE(job.measure());
    EXPECT_EQ(0.0F, job.getProgress());
    ASSERT_TRUE(job.open());
    (void)job.nextText();
    EXPECT_EQ(0.0F, job.getProgress());
}

TEST(JobFile, ProgressOfAFileThatGrowsEndsAtOne)
{
    JobFileInFolder job;
    job.saveText("G1 X1\n");
    ASSERT_TRUE(job.open());
    std::ofstream("tmp.gcode", std::ios::app) << "G1 X2\nG1 X3\n";

    while (JOB_LINE_NONE != (void(job.nextText()), job.m_eLast)) {
        EXPECT_GE(1.0F, job.getProgress());
    }

    EXPECT_EQ(1.0F, job.getProgress());
}

TEST(JobFile, MeasuringLeavesAnOpenJobAlone)
{
    JobFileInFolder job;
    job.saveText("G1 X1\nG1 X2\n");
    ASSERT_TRUE(job.open());
    (void)job.nextText();
    (void)job.nextText();

    EXPECT_FALSE(job.measure());
    EXPECT_EQ(0.5F, job.getProgress());
    job.close();
    EXPECT_TRUE(job.measure());
    EXPECT_EQ(0.0F, job.getProgress());
}

TEST(JobFile, DeliberateFullDiskCutsTheJob)
{
    JobFileInFolder job;
    {
        const FileSizeLimit limit(4);
        job.saveText("G1 X1\nG1 X2\n");
    }

    EXPECT_EQ("G1 X", job.m_folder.read("tmp.gcode"));
}
