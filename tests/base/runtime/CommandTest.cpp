// Running shell commands: results, captured output, the time budget, and what they inherit.
#include "Command.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Eventually.h"
#include "Fault.h"
#include "File.h"
#include "Pattern.h"
#include "ScratchFolder.h"
#include "Time.h"

namespace {

std::string capture(const std::string& strCommand, size_t uSize)
{
    std::string strOutput(uSize, '?');
    EXPECT_TRUE(captureCommand(strCommand.c_str(), strOutput.data(), uSize));
    return strOutput.c_str();
}

std::set<std::string> tempFiles()
{
    std::set<std::string> setName;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        if (0 == entry.path().filename().string().compare(0, 10, "temp_file.")) {
            setName.insert(entry.path().string());
        }
    }
    return setName;
}

/** New files are gone; those of programs that run beside this one go as well. */
bool noneLeftSince(const std::set<std::string>& setBefore)
{
    const std::set<std::string> setNow = tempFiles();
    return eventually([&] {
        for (const std::string& strName : setNow) {
            if (0 == setBefore.count(strName) && std::filesystem::exists(strName)) {
                return false;
            }
        }
        return true;
    });
}

bool hasNoChildren()
{
    return -1 == waitpid(-1, nullptr, WNOHANG) && ECHILD == errno;
}

} // namespace

TEST(CommandRun, TrueOnlyWhenItExitedWithZero)
{
    EXPECT_TRUE(runCommand("exit 0"));
    EXPECT_FALSE(runCommand("exit 1"));
    EXPECT_FALSE(runCommand("kill -9 $$"));
    EXPECT_FALSE(runCommand("no-such-command 2> /dev/null"));
}

TEST(CommandRun, ShellThatCannotRunIsAFailure)
{
    FaultScope fault("system:1:EAGAIN");

    EXPECT_FALSE(runCommand("exit 0"));
}

TEST(CommandRun, BackgroundCommandReturnsAtOnce)
{
    ScratchFolder folder;
    const std::string strMark = (folder.path() / "mark").string();
    const std::string strCommand =
        "(while [ ! -e " + strMark + " ]; do sleep 0.01; done; rm " + strMark + ") &";

    EXPECT_TRUE(runCommand(strCommand.c_str()));

    folder.write("mark", "");
    EXPECT_TRUE(eventually([&] { return !std::filesystem::exists(strMark); }));
}

TEST(CommandCapture, KeepsTheOutputWithItsLineEnd)
{
    EXPECT_EQ("4096\t87380\n", capture("printf '4096\\t87380\\n'", 64));
}

TEST(CommandCapture, KeepsTheFirstBytesOnly)
{
    EXPECT_EQ("abcdefg", capture("echo abcdefghijk", 8));
    EXPECT_EQ("y\ny", capture("yes", 4)); // and the endless rest ends with a broken pipe
    EXPECT_EQ("", capture("echo abc", 1));
}

TEST(CommandCapture, SlowOutputIsWaitedFor)
{
    EXPECT_EQ("one two", capture("printf o; sleep 0.05; printf 'ne two'", 64));
}

TEST(CommandCapture, OutputInPiecesStaysWithinTheBuffer)
{
    ScratchFolder folder;
    const std::string strRest = (folder.path() / "rest").string();
    ASSERT_EQ(0, mkfifo(strRest.c_str(), 0600));
    const CallJournal journal("read");
    std::thread writer([&strRest] {
        // The first piece has been read.
        EXPECT_TRUE(eventually([] { return CallJournal::lines().size() >= 2; }));
        std::ofstream(strRest) << "ghijklmnop";
    });
    std::string strBuffer(16, '?');

    EXPECT_TRUE(captureCommand(("printf abcdef; cat " + strRest).c_str(), strBuffer.data(), 8));

    writer.join();
    EXPECT_EQ(std::string("abcdefg\0", 8) + "????????", strBuffer);
    const std::vector<std::string> vecLine = CallJournal::lines();
    ASSERT_EQ(2u, vecLine.size());
    EXPECT_TRUE(hasPattern(vecLine[0], "^read [0-9]+ 7$")) << vecLine[0];
    EXPECT_TRUE(hasPattern(vecLine[1], "^read [0-9]+ 1$")) << vecLine[1]; // the last byte
}

TEST(CommandCapture, SilentCommandGivesAnEmptyText)
{
    EXPECT_EQ("", capture("true", 64));
}

TEST(CommandCapture, MissingProgramOrPipeIsAFailure)
{
    char acOutput[64] = "old";
    EXPECT_FALSE(captureCommand("no-such-command 2> /dev/null", acOutput, sizeof(acOutput)));
    EXPECT_STREQ("", acOutput);
    EXPECT_FALSE(captureCommand("echo abc", acOutput, 0));

    FaultScope fault("popen:1:EMFILE");
    EXPECT_FALSE(captureCommand("echo abc", acOutput, sizeof(acOutput)));
}

TEST(CommandCapture, ReadingGoesOnAfterASignalAndEndsWithAnError)
{
    char acOutput[64];
    {
        FaultScope fault("read:1-2:EINTR");
        EXPECT_TRUE(captureCommand("echo abc", acOutput, sizeof(acOutput)));
        EXPECT_STREQ("abc\n", acOutput);
        EXPECT_EQ(2u, faultHits());
    }
    FaultScope fault("read:1:EIO");
    EXPECT_FALSE(captureCommand("echo abc", acOutput, sizeof(acOutput)));
    EXPECT_TRUE(hasNoChildren());
}

TEST(CommandRunTimed, ReturnsTheExitStatus)
{
    const std::set<std::string> setBefore = tempFiles();

    EXPECT_EQ(0, runCommandTimed("true", Time(30, 0)));
    EXPECT_EQ(7, runCommandTimed("exit 7", Time(30, 0)));
    EXPECT_EQ(127, runCommandTimed("no-such-command 2> /dev/null", Time(30, 0)));

    EXPECT_TRUE(noneLeftSince(setBefore));
}

TEST(CommandRunTimed, CommandIsAScriptOfTheShell)
{
    ScratchFolder folder;
    const std::string strOut = (folder.path() / "out").string();
    const std::string strCommand =
        "for word in one two; do\necho $word >> " + strOut + "\ndone\necho $0 >> " + strOut;

    EXPECT_EQ(0, runCommandTimed(strCommand.c_str(), Time(30, 0)));

    const std::string strText = folder.read("out");
    EXPECT_EQ("one\ntwo\n/tmp/temp_file.", strText.substr(0, 23));
    EXPECT_EQ(30u, strText.size());
}

TEST(CommandRunTimed, ShellIsCalledByItsShortName)
{
    ScratchFolder folder;
    const std::string strCommand =
        "tr '\\0' '|' < /proc/$$/cmdline > " + (folder.path() / "out").string();

    EXPECT_EQ(0, runCommandTimed(strCommand.c_str(), Time(30, 0)));

    EXPECT_TRUE(hasPattern(folder.read("out"), "^sh\\|/tmp/temp_file\\.[^|]{6}\\|$"))
        << folder.read("out");
}

TEST(CommandRunTimed, ShellThatCannotBeRunReturns127)
{
    const FaultScope fault("execv=/bin/sh:1:ENOENT");

    EXPECT_EQ(127, runCommandTimed("true", Time(30, 0)));
}

TEST(CommandRunTimed, CommandIsKilledWhenTheBudgetIsUsedUp)
{
    const CallJournal journal("select kill");

    EXPECT_EQ(255, runCommandTimed("while :; do :; done", Time(0, 25000)));

    std::vector<std::string> vecLine = CallJournal::lines();
    ASSERT_EQ(4u, vecLine.size());
    EXPECT_TRUE(hasPattern(vecLine[3], "^kill [0-9]+ 9$")) << vecLine[3];
    vecLine.pop_back();
    EXPECT_EQ((std::vector<std::string>{"select 0.010000", "select 0.010000", "select 0.005000"}),
              vecLine);
    EXPECT_TRUE(hasNoChildren());
}

TEST(CommandRunTimed, WithoutBudgetACommandIsKilledAtOnce)
{
    const CallJournal journal("select");
    EXPECT_EQ(255, runCommandTimed("while :; do :; done", Time()));
    EXPECT_TRUE(hasNoChildren());
    EXPECT_TRUE(CallJournal::lines().empty());
}

TEST(CommandRunTimed, DeliberateCommandEndedByASignalCountsAsZero)
{
    EXPECT_EQ(0, runCommandTimed("kill -9 $$", Time(30, 0)));
}

TEST(CommandRunTimed, NullCommandReturnsMinusOne)
{
    EXPECT_EQ(-1, runCommandTimed(nullptr, Time(1, 0)));
}

TEST(CommandRunTimed, FailuresBeforeTheCommandReturn255)
{
    for (const char* pPlan :
         {"fork:1:EAGAIN", "mkostemp:1:ENOSPC", "fdopen:1:ENOMEM", "fflush:1:ENOSPC"}) {
        const std::set<std::string> setBefore = tempFiles();
        testing::internal::CaptureStderr();
        {
            FaultScope fault(pPlan);
            EXPECT_EQ(255, runCommandTimed("true", Time(30, 0))) << pPlan;
            EXPECT_EQ(1u, faultHits()) << pPlan;
        }
        (void)testing::internal::GetCapturedStderr(); // a file that never was can't be removed
        EXPECT_TRUE(noneLeftSince(setBefore)) << pPlan;
    }
}

TEST(CommandRunTimed, IgnoredChildSignalLosesTheStatusAndStillKills)
{
    signal(SIGCHLD, SIG_IGN);
    const int nExited = runCommandTimed("exit 3", Time(30, 0));
    const auto begun = std::chrono::steady_clock::now();
    const int nKilled = runCommandTimed("exec sleep 60", Time(0, 100000));
    const auto took = std::chrono::steady_clock::now() - begun;
    const bool bRun = runCommand("true");
    signal(SIGCHLD, SIG_DFL);

    EXPECT_EQ(255, nExited);
    EXPECT_EQ(255, nKilled);
    EXPECT_LT(took, std::chrono::seconds(30));
    EXPECT_FALSE(bRun);
}

TEST(CommandRunTimed, WaitingGoesOnAfterASignal)
{
    FaultScope fault("waitpid:1-2:EINTR");

    EXPECT_EQ(3, runCommandTimed("exit 3", Time(30, 0)));

    EXPECT_EQ(2u, faultHits());
}

TEST(Command, ChildrenInheritNoDescriptorOfOurs)
{
    ScratchFolder folder;
    folder.write("file", "text");
    File file;
    ASSERT_EQ(0, file.open((folder.path() / "file").c_str(), FILE_FLAG_READ));
    const std::string strTest =
        "[ ! -e /proc/self/fd/" + std::to_string(fileno(file.getStream())) + " ]";
    char acOutput[8];

    EXPECT_TRUE(runCommand(strTest.c_str()));
    EXPECT_EQ(0, runCommandTimed(strTest.c_str(), Time(30, 0)));
    EXPECT_TRUE(captureCommand((strTest + " && echo yes").c_str(), acOutput, sizeof(acOutput)));
    EXPECT_STREQ("yes\n", acOutput);
}
