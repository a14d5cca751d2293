// The rotating log file: which old files are removed, and when they cannot be.
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Fault.h"
#include "LogFileFolder.h"
#include "Pattern.h"
#include "StringBlock.h"

namespace fs = std::filesystem;

static int g_nRemovals = 0;

// The linker gives the program's calls to the second.
extern "C" int __real_unlinkat(int nFolder, const char* pName, int nFlags);

extern "C" int __wrap_unlinkat(int nFolder, const char* pName, int nFlags)
{
    ++g_nRemovals;
    return __real_unlinkat(nFolder, pName, nFlags);
}

namespace {

using LogFilePruning = LogFileFolder;

} // namespace

TEST_F(LogFilePruning, OnlyTheNewestFilesAreKept)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 2));
    std::vector<std::string> vecSeen = names();
    for (int i = 0; i < 3; ++i) {
        waitForNextSecond();
        logLine(std::string(1024, static_cast<char>('a' + i)));
        vecSeen.push_back(names().back());
        EXPECT_EQ(2u, names().size());
    }

    ASSERT_EQ(4u, vecSeen.size());
    EXPECT_EQ((std::vector<std::string>{vecSeen[2], vecSeen[3]}), names());
    EXPECT_EQ(std::string(1024, 'c'), m_folder.read(vecSeen[2]));
}

TEST_F(LogFilePruning, CurrentFileIsNeverAmongThePruned)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 1));
    for (int i = 0; i < 2; ++i) {
        waitForNextSecond();
        logLine(std::string(1024, 'a')); // written in the same tick in which the new file is made
        logLine("alive");

        ASSERT_EQ(1u, names().size());
        EXPECT_EQ("alive", m_folder.read(names()[0]));
    }
}

TEST_F(LogFilePruning, PruningTakesEverythingThatBeginsWithTheBasePath)
{
    m_folder.write("log-old", "");
    m_folder.write("log.1", "");
    m_folder.write("other", "");
    for (const char* pOld : {"log-old", "log.1", "other"}) {
        fs::last_write_time(m_folder.path() / pOld,
                            fs::file_time_type::clock::now() - std::chrono::hours(1));
    }

    ASSERT_EQ(RET_SUCCESS, init(1, 1));

    ASSERT_EQ(2u, names().size());
    EXPECT_EQ("other", names()[1]);
}

TEST_F(LogFilePruning, PruningTakesNamesOfAnyBytesAsTheyStand)
{
    const fs::path old = fs::current_path();
    fs::current_path(m_folder.path()); // what a shell makes of such a name lands here
    for (const char* pName : {"log;touch made;", "log$(touch made)", "log`touch made`",
                              "log\ntouch made\n", "log a 'b' \"c\"", "log*", "log -rf other",
                              "log\\", "log|touch made", "log\xff\xfe\x01", "other", "log a"}) {
        m_folder.write(pName, "");
        setTime(pName, 1000000000);
    }

    EXPECT_EQ(RET_SUCCESS, init(1, 1));

    fs::current_path(old);
    ASSERT_EQ(2u, names().size());
    EXPECT_TRUE(hasPattern(names()[0], "^log\\.[-0-9_:]{19}$"));
    EXPECT_EQ("other", names()[1]);
}

TEST_F(LogFilePruning, PruningGoesByTimeNotByName)
{
    m_folder.write("log.a", "");
    m_folder.write("log.b", "");
    m_folder.write("log.c", "");
    setTime("log.a", 1000000000, 2);
    setTime("log.b", 1000000000, 3);
    setTime("log.c", 999999999, 4);

    ASSERT_EQ(RET_SUCCESS, init(1, 3));

    ASSERT_EQ(3u, names().size());
    EXPECT_EQ("log.a", names()[1]);
    EXPECT_EQ("log.b", names()[2]);
}

TEST_F(LogFilePruning, EveryFileBeyondTheNewestIsRemovedOnce)
{
    for (const char* pName : {"log.a", "log.b", "log.c"}) {
        m_folder.write(pName, "");
        setTime(pName, 1000000000);
    }
    g_nRemovals = 0;

    ASSERT_EQ(RET_SUCCESS, init(1, 2));

    EXPECT_EQ(2, g_nRemovals) << "and nothing behind the last";
    EXPECT_EQ(2u, names().size());
}

TEST_F(LogFilePruning, FilesOfOneTimeArePrunedByName)
{
    for (const char* pName : {"log.c", "log.a", "log.B", "log.\xe4", "log.b"}) {
        m_folder.write(pName, "");
        setTime(pName, 1000000000, 5);
    }

    ASSERT_EQ(RET_SUCCESS, init(1, 4));

    EXPECT_EQ(4u, names().size());
    for (const char* pName : {"log.B", "log.a", "log.b"}) {
        EXPECT_TRUE(fs::exists(m_folder.path() / pName)) << pName;
    }
}

TEST_F(LogFilePruning, PruningNeitherTakesNorCountsWhatIsNoRegularFile)
{
    m_folder.write("log.1", "");
    m_folder.write("target", "");
    setTime("log.1", 1000000000);
    setTime("target", 1000000000);
    fs::create_directory(m_folder.path() / "log.folder");
    std::ofstream(m_folder.path() / "log.folder/inside") << "x";
    fs::create_symlink("target", m_folder.path() / "log.link");
    fs::create_symlink("nowhere", m_folder.path() / "log.dangling");
    ASSERT_EQ(0, mkfifo((m_folder.path() / "log.pipe").c_str(), 0666));

    ASSERT_EQ(RET_SUCCESS, init(1, 2));
    EXPECT_TRUE(fs::exists(m_folder.path() / "log.1")) << "the second regular file";
    waitForNextSecond();
    ASSERT_EQ(RET_SUCCESS, init(1, 1));

    EXPECT_FALSE(fs::exists(m_folder.path() / "log.1"));
    for (const char* pName :
         {"log.folder/inside", "log.link", "log.dangling", "log.pipe", "target"}) {
        EXPECT_TRUE(fs::exists(fs::symlink_status(m_folder.path() / pName))) << pName;
    }
}

TEST_F(LogFilePruning, WithoutAFolderInItsPathTheWorkingFolderIsPruned)
{
    const fs::path old = fs::current_path();
    fs::current_path(m_folder.path());
    m_folder.write("log.1", "");
    setTime("log.1", 1000000000);

    EXPECT_EQ(RET_SUCCESS, LogFile::getInstance().init("log", 1, 1));

    fs::current_path(old);
    ASSERT_EQ(1u, names().size());
    EXPECT_NE("log.1", names()[0]);
}

TEST_F(LogFilePruning, PathThatIsAFolderPrunesNoHiddenFiles)
{
    m_folder.write(".hidden", "");
    m_folder.write("seen", "");
    setTime(".hidden", 1000000000);
    setTime("seen", 1000000000);

    EXPECT_EQ(RET_SUCCESS, LogFile::getInstance().init(m_folder.path().string() + "/", 1, 0));

    EXPECT_TRUE(fs::exists(m_folder.path() / ".hidden"));
    EXPECT_FALSE(fs::exists(m_folder.path() / "seen"));
}

TEST_F(LogFilePruning, KeepingNoneRemovesTheCurrentFileToo)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 0));
    logLine("into nowhere\n");

    EXPECT_TRUE(names().empty());
}

TEST_F(LogFilePruning, LongPathIsPruned)
{
    // Folders of 100 characters, until the path has more than 512.
    std::string strBase = m_folder.path().string();
    for (int i = 0; i < 6; ++i) {
        strBase += "/" + std::string(100, 'd');
        fs::create_directory(strBase);
    }
    std::ofstream(strBase + "/log.old") << "old";
    fs::last_write_time(strBase + "/log.old",
                        fs::file_time_type::clock::now() - std::chrono::hours(1));

    EXPECT_EQ(RET_SUCCESS, LogFile::getInstance().init(strBase + "/log", 1, 1));

    EXPECT_FALSE(fs::exists(strBase + "/log.old"));
}

TEST_F(LogFilePruning, FailedPruningIsSurvivedAndMadeUpForByTheNext)
{
    m_folder.write("log.1", "");
    setTime("log.1", 1000000000);
    {
#ifdef __GLIBC__
        FaultScope fault("malloc>=32768:1:ENOMEM"); // the folder's buffer
#else
        FaultScope fault("calloc>=2048:1:ENOMEM");
#endif
        EXPECT_EQ(RET_SUCCESS, init(1, 1));
        EXPECT_EQ(1u, faultHits());
    }
    logLine("line\n");
    EXPECT_EQ("line\n", contents());
    EXPECT_EQ(2u, names().size());
    waitForNextSecond();

    EXPECT_EQ(RET_SUCCESS, init(1, 1));

    EXPECT_EQ(1u, names().size());
}

TEST_F(LogFilePruning, FullMemoryLeavesOldFilesToTheNextPruning)
{
    const std::string strOld = "log." + std::string(200, 'x');
    m_folder.write(strOld, "");
    setTime(strOld.c_str(), 1000000000);

    // The copy of that name.
    const std::string strBlock = std::to_string(stringBlock(strOld.size()));
    FaultScope fault(("malloc=" + strBlock + ":1:ENOMEM").c_str());
    EXPECT_EQ(RET_SUCCESS, init(1, 1));

    EXPECT_EQ(1u, faultHits());
    EXPECT_TRUE(fs::exists(m_folder.path() / strOld));
}
