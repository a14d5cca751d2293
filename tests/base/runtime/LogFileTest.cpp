// The rotating log file: names, limits, pruning, several threads, and disks that refuse.
#include "LogFile.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "ChildProgram.h"
#include "EventBus.h"
#include "Fault.h"
#include "Log.h"
#include "LogEvent.h"
#include "Pattern.h"
#include "ScratchFolder.h"
#include "StringBlock.h"
#include "Time.h"

namespace fs = std::filesystem;

namespace {

const char* const BAD_PATH = "/no-such-folder/log";

void logLine(const std::string& strText)
{
    Log::getInstance().log("Some.cpp", 1, "doIt", 2, "%s", strText.c_str());
}

/** Files are named by the second: wait until the name changes. */
void waitForNextSecond()
{
    const std::string strNow = timeStamp(1);
    while (strNow == timeStamp(1)) {
        sleepFor(Time(0, 5000));
    }
}

} // namespace

class LogFileTest : public testing::Test
{
protected:
    LogFileTest()
    {
        Log::getInstance().setLayout(0).setSinks(0);
        testing::internal::CaptureStdout();
    }

    ~LogFileTest() override
    {
        LogFile::getInstance().close();
        Log::getInstance().setLayout(127).setSinks(LOG_SINK_CONSOLE);
        (void)testing::internal::GetCapturedStdout();
    }

    std::string base() const
    {
        return (m_folder.path() / "log").string();
    }

    RET_E init(uint32_t u32LimitKiB, int32_t s32Files)
    {
        return LogFile::getInstance().init(base(), u32LimitKiB, s32Files);
    }

    /** Names behind the base path's last component, oldest first. */
    std::vector<std::string> names() const
    {
        std::vector<std::string> vecName;
        for (const auto& entry : fs::directory_iterator(m_folder.path())) {
            vecName.push_back(entry.path().filename().string());
        }
        std::sort(vecName.begin(), vecName.end());
        return vecName;
    }

    /** The modification time of a file of the folder. */
    void setTime(const char* pName, time_t nSeconds, long lNanoseconds = 0) const
    {
        const timespec aTime[2] = {{nSeconds, lNanoseconds}, {nSeconds, lNanoseconds}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, (m_folder.path() / pName).c_str(), aTime, 0));
    }

    std::string contents() const
    {
        std::string strAll;
        for (const std::string& strName : names()) {
            strAll += m_folder.read(strName);
        }
        return strAll;
    }

    ScratchFolder m_folder;
};

TEST_F(LogFileTest, FileIsNamedByTheTimeOfItsCreation)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));

    ASSERT_EQ(1u, names().size());
    EXPECT_TRUE(hasPattern(names()[0], "^log\\.[0-9]{4}-[0-9]{2}-[0-9]{2}_[0-9]{2}:[0-9]{2}:"
                                       "[0-9]{2}$"));
    EXPECT_EQ("create log file:" + (m_folder.path() / names()[0]).string() + "\n",
              testing::internal::GetCapturedStdout());
    testing::internal::CaptureStdout();
}

TEST_F(LogFileTest, LinesAreWrittenAsCounted)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));

    logLine("one\n");
    logLine("without an end");
    logLine("");
    logLine("two\n");

    EXPECT_EQ("one\nwithout an endtwo\n", contents());
}

TEST_F(LogFileTest, CutLineIsWrittenWithItsZeros)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));

    logLine(std::string(5000, 'x'));

    EXPECT_EQ(std::string(4093, 'x') + std::string(907, '\0'), contents());
}

TEST_F(LogFileTest, EmptyPathOrPathThatCannotBeCreatedFails)
{
    EXPECT_EQ(1, LogFile::getInstance().init("", 4096, 2));
    EXPECT_EQ(1, LogFile::getInstance().init(BAD_PATH, 4096, 2));

    logLine("to nobody\n");
}

TEST_F(LogFileTest, NewFileBeginsAfterTheLineThatReachesTheLimit)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 5));
    waitForNextSecond();

    logLine(std::string(1023, 'a'));
    EXPECT_EQ(1u, names().size());
    logLine("b"); // 1024 bytes
    EXPECT_EQ(2u, names().size());
    logLine("c");

    ASSERT_EQ(2u, names().size());
    EXPECT_EQ(std::string(1023, 'a') + "b", m_folder.read(names()[0]));
    EXPECT_EQ("c", m_folder.read(names()[1]));
}

TEST_F(LogFileTest, WithinTheSameSecondLinesGoOnInTheSameFile)
{
    waitForNextSecond();
    ASSERT_EQ(RET_SUCCESS, init(1, 5));
    const std::string strBig(2000, 'x');
    std::string strExpected;
    const std::string strSecond = timeStamp(1);
    while (strSecond == timeStamp(1) && strExpected.size() < 20000) {
        logLine(strBig);
        strExpected += strBig;
    }
    EXPECT_EQ(strExpected, contents()); // nothing was truncated

    waitForNextSecond();
    logLine(strBig); // the first line after the change: rotated behind it
    logLine("next");

    ASSERT_GE(names().size(), 2u);
    EXPECT_EQ(strExpected + strBig + "next", contents());
    EXPECT_EQ("next", m_folder.read(names().back()));
}

TEST_F(LogFileTest, OnlyTheNewestFilesAreKept)
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

TEST_F(LogFileTest, CurrentFileIsNeverAmongThePruned)
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

TEST_F(LogFileTest, PruningTakesEverythingThatBeginsWithTheBasePath)
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

TEST_F(LogFileTest, PruningTakesNamesOfAnyBytesAsTheyStand)
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

TEST_F(LogFileTest, PruningGoesByTimeNotByName)
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

TEST_F(LogFileTest, FilesOfOneTimeArePrunedByName)
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

TEST_F(LogFileTest, PruningNeitherTakesNorCountsWhatIsNoRegularFile)
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

TEST_F(LogFileTest, WithoutAFolderInItsPathTheWorkingFolderIsPruned)
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

TEST_F(LogFileTest, PathThatIsAFolderPrunesNoHiddenFiles)
{
    m_folder.write(".hidden", "");
    m_folder.write("seen", "");
    setTime(".hidden", 1000000000);
    setTime("seen", 1000000000);

    EXPECT_EQ(RET_SUCCESS, LogFile::getInstance().init(m_folder.path().string() + "/", 1, 0));

    EXPECT_TRUE(fs::exists(m_folder.path() / ".hidden"));
    EXPECT_FALSE(fs::exists(m_folder.path() / "seen"));
}

TEST_F(LogFileTest, KeepingNoneRemovesTheCurrentFileToo)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 0));
    logLine("into nowhere\n");

    EXPECT_TRUE(names().empty());
}

TEST_F(LogFileTest, LongPathIsPruned)
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

TEST_F(LogFileTest, SecondSetUpDoesNotDoubleTheLines)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));

    logLine("once\n");

    EXPECT_EQ("once\n", contents());
}

TEST_F(LogFileTest, AfterCloseLinesAreDropped)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));
    logLine("kept\n");
    LogFile::getInstance().close();
    waitForNextSecond();

    logLine("dropped\n");

    EXPECT_EQ("kept\n", contents());
}

TEST_F(LogFileTest, AnotherEventTypeIsABadCast)
{
    Event event;

    EXPECT_THROW(LogFile::getInstance().onLog(&event), std::bad_cast);
}

// Deliberate: no line lost, none torn, none written to a closed stream while files change.
TEST_F(LogFileTest, LineIsWrittenUnderTheLock)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));
    LogEvent event(SafePointer_C<char>(strdup("one\n")), 4, 2);
    const CallJournal journal("pthread_mutex_lock fwrite");

    EXPECT_EQ(0, LogFile::getInstance().onLog(&event));

    const std::vector<std::string> vecLine = CallJournal::lines();
    // The handle's own lock, the file's, the write, the handle's again.
    EXPECT_EQ((std::vector<std::string>{"pthread_mutex_lock", "pthread_mutex_lock", "fwrite",
                                        "pthread_mutex_lock"}),
              vecLine);
}

TEST_F(LogFileTest, RotationWhileSeveralThreadsLogLosesNothing)
{
    const int THREADS = 4;
    const int LINES = 400;
    ASSERT_EQ(RET_SUCCESS, init(1, 1000));
    std::vector<std::thread> vecThread;
    for (int nThread = 0; nThread < THREADS; ++nThread) {
        vecThread.emplace_back([nThread] {
            for (int nLine = 0; nLine < LINES; ++nLine) {
                logLine("<" + std::to_string(nThread) + " " + std::to_string(nLine) + " " +
                        std::string(static_cast<size_t>(nLine % 97), 'x') + ">\n");
                if (0 == nLine % 50) {
                    sleepFor(Time(0, 300000)); // so that the seconds, and the files, change
                }
            }
        });
    }
    for (std::thread& thread : vecThread) {
        thread.join();
    }

    EXPECT_GT(names().size(), 2u); // it did rotate
    std::map<int, int> mapNext;
    for (const std::string& strName : names()) {
        std::ifstream file(m_folder.path() / strName);
        std::string strLine;
        while (std::getline(file, strLine)) {
            int nThread = -1;
            int nLine = -1;
            ASSERT_EQ(2, sscanf(strLine.c_str(), "<%d %d ", &nThread, &nLine)) << strLine;
            ASSERT_EQ("<" + std::to_string(nThread) + " " + std::to_string(nLine) + " " +
                          std::string(static_cast<size_t>(nLine % 97), 'x') + ">",
                      strLine);
            ASSERT_EQ(mapNext[nThread], nLine); // in the thread's order
            ++mapNext[nThread];
        }
    }
    for (int nThread = 0; nThread < THREADS; ++nThread) {
        EXPECT_EQ(LINES, mapNext[nThread]);
    }
}

TEST_F(LogFileTest, FullDiskLosesLinesOnly)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));
    signal(SIGXFSZ, SIG_IGN); // the write then fails, as on a full disk
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &limit));
    const rlimit old = limit;
    limit.rlim_cur = 4096;
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
    for (int i = 0; i < 100; ++i) {
        logLine(std::string(200, 'x') + "\n");
    }
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &old));
    signal(SIGXFSZ, SIG_DFL);

    logLine("room again\n");

    const std::string strText = contents();
    EXPECT_GE(strText.size(), 4096u);
    EXPECT_EQ("room again\n", strText.substr(strText.size() - 11));
}

TEST_F(LogFileTest, FailedFlushesAndWritesAreSurvived)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 5));
    {
        FaultScope fault("fflush:1-10:ENOSPC;fwrite:1-10:ENOSPC");
        for (int i = 0; i < 20; ++i) {
            logLine("line\n");
        }
        EXPECT_GE(faultHits(), 20u);
    }
    logLine("end\n");

    EXPECT_EQ("line\nline\nline\nline\nline\nline\nline\nline\nline\nline\nend\n", contents());
}

TEST_F(LogFileTest, RemovedFileIsFollowedByANewOneAtTheLimit)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 5));
    ASSERT_EQ(0, unlink((m_folder.path() / names()[0]).c_str()));
    logLine("into nowhere\n");
    EXPECT_TRUE(names().empty());
    waitForNextSecond();

    logLine(std::string(1024, 'x'));
    logLine("back\n");

    EXPECT_EQ("back\n", contents());
}

TEST_F(LogFileTest, FolderThatCannotBeWrittenIsTriedOncePerSecond)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 5));
    waitForNextSecond();
    {
        const std::string strPlan = "fopen=" + base() + ":1-:EACCES";
        FaultScope fault(strPlan.c_str());
        logLine(std::string(1024, 'x')); // the rotation fails
        EXPECT_EQ(1u, faultHits());
        waitForNextSecond();
        unsigned uLines = 0;
        const std::string strSecond = timeStamp(1);
        while (strSecond == timeStamp(1)) {
            logLine("lost\n");
            ++uLines;
        }
        EXPECT_GE(faultHits(), 2u);
        EXPECT_LE(faultHits(), 3u); // not with every line
        EXPECT_GT(uLines, 3u);
    }
    waitForNextSecond();

    logLine("back\n");

    EXPECT_EQ(2u, names().size());
    EXPECT_EQ(std::string(1024, 'x') + "back\n", contents());
}

TEST_F(LogFileTest, FailedPruningIsSurvivedAndMadeUpForByTheNext)
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

TEST_F(LogFileTest, FullMemoryLeavesOldFilesToTheNextPruning)
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

TEST_F(LogFileTest, EveryAllocationOfANewFileMayFail)
{
    ASSERT_EQ(RET_SUCCESS, init(0, 5)); // a new file behind the first line of each second
    unsigned uFailed = 0;
    unsigned uHits = 1;
    while (0 != uHits) {
        waitForNextSecond();
        const std::string strPlan = "malloc:" + std::to_string(++uFailed) + ":ENOMEM";
        {
            FaultScope fault(strPlan.c_str());
            logLine("line\n"); // the first allocation is the line's own
            uHits = faultHits();
        }
        ASSERT_LT(uFailed, 50u);
        while (names().size() > 1) { // or each failure would bring another name
            fs::remove(m_folder.path() / names()[0]);
        }
    }

    EXPECT_GT(uFailed, 5u);
    logLine("end\n");
    EXPECT_NE(std::string::npos, contents().find("end\n"));
}

TEST_F(LogFileTest, WithoutMemoryAtTheStartThereIsNoFile)
{
    const std::string strBase = base();
    Log::getInstance().setSinks(LOG_SINK_FILE);
    unsigned uHits = 1;
    for (unsigned i = 1; 0 != uHits; ++i) {
        LogFile::getInstance().close();
        const std::string strPlan = "malloc:" + std::to_string(i) + ":ENOMEM";
        FaultScope fault(strPlan.c_str());
        Log::getInstance().initLogFile(strBase.c_str(), 4096, 2);
        logLine("line\n");
        uHits = faultHits();
    }

    EXPECT_EQ("line\n", contents());
}

TEST_F(LogFileTest, FileIsClosedInCommands)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 5));
    bool bAllCloseOnExec = true;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        const std::string strTarget = fs::read_symlink(entry.path(), ignored).string();
        if (0 == strTarget.compare(0, base().size(), base())) {
            const int nFd = std::stoi(entry.path().filename().string());
            bAllCloseOnExec = bAllCloseOnExec && 0 != (fcntl(nFd, F_GETFD) & FD_CLOEXEC);
        }
    }

    EXPECT_TRUE(bAllCloseOnExec);
}

TEST_F(LogFileTest, LogSetsItUpOnlyWithTheFileSink)
{
    Log::getInstance().setSinks(LOG_SINK_CONSOLE | LOG_SINK_SERVER);
    Log::getInstance().initLogFile(base().c_str(), 4096, 2);
    EXPECT_TRUE(names().empty());

    Log::getInstance().setSinks(LOG_SINK_FILE);
    Log::getInstance().initLogFile(base().c_str(), 4096, 2);
    EXPECT_EQ(1u, names().size());
}

TEST_F(LogFileTest, NullPathIsTheFileLogInTheWorkingFolder)
{
    const fs::path old = fs::current_path();
    fs::current_path(m_folder.path());

    Log::getInstance().setSinks(LOG_SINK_FILE);
    Log::getInstance().initLogFile(nullptr, 4096, 2);

    fs::current_path(old);
    ASSERT_EQ(1u, names().size());
    EXPECT_EQ("log.2", names()[0].substr(0, 5)); // the year's first digit
}
