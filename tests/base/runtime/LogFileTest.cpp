// The rotating log file: names, limits, lines, and several threads.
#include "LogFile.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Descriptors.h"
#include "Log.h"
#include "LogEvent.h"
#include "LogFileFolder.h"
#include "Pattern.h"

namespace fs = std::filesystem;

namespace {

const char* const BAD_PATH = "/no-such-folder/log";

using LogFileLines = LogFileFolder;

} // namespace

TEST_F(LogFileLines, FileIsNamedByTheTimeOfItsCreation)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));

    ASSERT_EQ(1u, names().size());
    EXPECT_TRUE(hasPattern(names()[0], "^log\\.[0-9]{4}-[0-9]{2}-[0-9]{2}_[0-9]{2}:[0-9]{2}:"
                                       "[0-9]{2}$"));
    EXPECT_EQ("create log file:" + (m_folder.path() / names()[0]).string() + "\n",
              testing::internal::GetCapturedStdout());
    testing::internal::CaptureStdout();
}

TEST_F(LogFileLines, LinesAreWrittenAsCounted)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));

    logLine("one\n");
    logLine("without an end");
    logLine("");
    logLine("two\n");

    EXPECT_EQ("one\nwithout an endtwo\n", contents());
}

TEST_F(LogFileLines, CutLineIsWrittenWithItsZeros)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));

    logLine(std::string(5000, 'x'));

    EXPECT_EQ(std::string(4093, 'x') + std::string(907, '\0'), contents());
}

TEST_F(LogFileLines, EmptyPathOrPathThatCannotBeCreatedFails)
{
    EXPECT_EQ(1, LogFile::getInstance().init("", 4096, 2));
    EXPECT_EQ(1, LogFile::getInstance().init(BAD_PATH, 4096, 2));

    logLine("to nobody\n");
}

TEST_F(LogFileLines, NewFileBeginsAfterTheLineThatReachesTheLimit)
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

TEST_F(LogFileLines, WithinTheSameSecondLinesGoOnInTheSameFile)
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

TEST_F(LogFileLines, SecondSetUpDoesNotDoubleTheLines)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));

    logLine("once\n");

    EXPECT_EQ("once\n", contents());
}

TEST_F(LogFileLines, AfterCloseLinesAreDropped)
{
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));
    logLine("kept\n");
    LogFile::getInstance().close();
    waitForNextSecond();

    logLine("dropped\n");

    EXPECT_EQ("kept\n", contents());
    LogEvent event(SafePointer_C<char>(strdup("dropped\n")), 8, 2);
    EXPECT_EQ(0, LogFile::getInstance().onLog(&event));
}

TEST_F(LogFileLines, AnotherEventTypeIsABadCast)
{
    Event event;

    EXPECT_THROW(LogFile::getInstance().onLog(&event), std::bad_cast);
}

TEST_F(LogFileLines, LineIsWrittenUnderTheLock)
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

TEST_F(LogFileLines, FileIsOpenedAndClosedUnderTheLock)
{
    const CallJournal journal("pthread_mutex_lock fopen");
    ASSERT_EQ(RET_SUCCESS, init(4096, 2));
    const std::vector<std::string> vecOpening = CallJournal::lines();
    const size_t uBefore = CallJournal::count("pthread_mutex_lock");

    LogFile::getInstance().close();

    ASSERT_LE(2u, vecOpening.size());
    EXPECT_EQ("pthread_mutex_lock", vecOpening[0]);
    EXPECT_EQ("fopen " + base(), vecOpening[1].substr(0, 6 + base().size()));
    EXPECT_EQ(uBefore + 1, CallJournal::count("pthread_mutex_lock"));
}

// No line is lost, torn or written to a closed stream while files change.
TEST_F(LogFileLines, RotationWhileSeveralThreadsLogLosesNothing)
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

TEST_F(LogFileLines, FileIsClosedInCommands)
{
    ASSERT_EQ(RET_SUCCESS, init(1, 5));

    const auto mapOpen = openDescriptors(base());

    ASSERT_EQ(1u, mapOpen.size());
    EXPECT_EQ(FD_CLOEXEC, fcntl(mapOpen.begin()->first, F_GETFD));
}

TEST_F(LogFileLines, LogSetsItUpOnlyWithTheFileSink)
{
    Log::getInstance().setSinks(LOG_SINK_CONSOLE | LOG_SINK_SERVER);
    Log::getInstance().initLogFile(base().c_str(), 4096, 2);
    EXPECT_TRUE(names().empty());

    Log::getInstance().setSinks(LOG_SINK_FILE);
    Log::getInstance().initLogFile(base().c_str(), 4096, 2);
    EXPECT_EQ(1u, names().size());
}

TEST_F(LogFileLines, NullPathIsTheFileLogInTheWorkingFolder)
{
    const fs::path old = fs::current_path();
    fs::current_path(m_folder.path());

    Log::getInstance().setSinks(LOG_SINK_FILE);
    Log::getInstance().initLogFile(nullptr, 4096, 2);

    fs::current_path(old);
    ASSERT_EQ(1u, names().size());
    EXPECT_EQ("log.2", names()[0].substr(0, 5)); // the year's first digit
}
