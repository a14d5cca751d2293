// Daemons and restarts, in programs of their own.
#include "Daemon.h"

#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Pattern.h"
#include "ScratchFolder.h"

namespace {

ChildResult runDaemon(const ScratchFolder& folder, const char* pPlan)
{
    return runChild({BASE_CHILD, "daemonise", (folder.path() / "report").string(), pPlan});
}

} // namespace

TEST(Daemon, GoesOnInASessionOfItsOwn)
{
    ScratchFolder folder;

    const ChildResult result = runDaemon(folder, "");

    // The caller and the session's leader exit with 0; what was buffered is not lost.
    EXPECT_EQ("buffered\nstatuses 0 0 42\n", result.strOutput);
    EXPECT_EQ("", result.strError);
    EXPECT_EQ("directory /\n"
              "mask 0\n"
              "0 /dev/null\n1 /dev/null\n2 /dev/null\n"
              "0 reads and writes\n1 reads and writes\n2 reads and writes\n"
              "0 more\n"
              "own session\n"
              "no leader\n",
              folder.read("report"));
}

TEST(Daemon, FailedForkExitsWithOne)
{
    ScratchFolder folder;

    const ChildResult first = runDaemon(folder, "fork:1:EAGAIN");
    EXPECT_EQ("fork() failed\n", first.strError);
    EXPECT_EQ("buffered\nstatuses 1\n", first.strOutput);

    const ChildResult second = runDaemon(folder, "fork:2:EAGAIN");
    EXPECT_EQ("fork() failed\n", second.strError);
    EXPECT_EQ("buffered\nstatuses 0 1\n", second.strOutput);
    EXPECT_EQ("", folder.read("report"));
}

TEST(Daemon, FailedSessionExitsWithOne)
{
    ScratchFolder folder;

    const ChildResult result = runDaemon(folder, "setsid:1:EPERM");

    EXPECT_EQ("setsid() failed\n", result.strError);
    EXPECT_EQ("buffered\nstatuses 0 1\n", result.strOutput);
}

TEST(Daemon, DeliberateFailedChangeOfDirectoryExitsWithZero)
{
    ScratchFolder folder;

    const ChildResult result = runDaemon(folder, "chdir=/:1:EACCES");

    EXPECT_EQ("chdir(/) failed\n", result.strError);
    EXPECT_EQ("buffered\nstatuses 0 0 0\n", result.strOutput);
    EXPECT_EQ("", folder.read("report"));
}

TEST(DaemonRestart, KillsTheProcessAndStartsTheProgramAgain)
{
    ScratchFolder folder;

    ChildProgram program({BASE_CHILD, "restart", (folder.path() / "mark").string(), "last"});
    const std::string strPid = std::to_string(program.pid());
    const std::string strKill = "kill -9 " + strPid + "   (sub_fd:";
    EXPECT_TRUE(program.waitForOutput(strKill)) << program.output();
    const ChildResult result = program.wait();

    EXPECT_EQ(SIGKILL, result.nSignal);
    EXPECT_TRUE(hasPattern(result.strOutput,
                           "^kill -9 [0-9]+   \\(sub_fd:[0-9]+\\)\nrestarted restart last, "
                           "open: 256, no child\n$"))
        << result.strOutput;
    EXPECT_EQ(std::string::npos, result.strOutput.find("(sub_fd:" + strPid + ")"))
        << "its own number, not its parent's";
}

TEST(DaemonRestart, DeliberateProcessThatHasLeftIsKilledAndStartedAllTheSame)
{
    ScratchFolder folder;

    const ChildResult result =
        runChild({BASE_CHILD, "restart", (folder.path() / "mark").string(), "leaves"});

    EXPECT_TRUE(hasPattern(result.strOutput,
                           "^kill -9 [0-9]+   \\(sub_fd:[0-9]+\\)\nrestarted restart leaves, "
                           "open: 256, no child\n$"))
        << result.strOutput;
}

TEST(DaemonRestart, PausesForTheDelayAndForThreeSeconds)
{
    ScratchFolder folder;
    const std::string strJournal = (folder.path() / "journal").string();

    const ChildResult result =
        runChild({"/usr/bin/env", "KESTREL_FAULT_JOURNAL=" + strJournal,
                  "KESTREL_FAULT_JOURNAL_CALLS=setsid select write waitpid execvp",
                  "KESTREL_FAULT_HURRY=100", BASE_CHILD, "restart",
                  (folder.path() / "mark").string(), "last"});

    EXPECT_EQ(SIGKILL, result.nSignal);
    EXPECT_EQ("base_child|setsid\n"
              "base_child|select 0.100000\n" // the delay
              "base_child|write 1 LINE\n"    // of what comes
              "base_child|waitpid\n"         // for the kill
              "base_child|select 3.000000\n"
              "base_child|execvp " BASE_CHILD "\n",
              replacePattern(folder.read("journal"), "write 1 [0-9]+", "write 1 LINE"));
}

TEST(DaemonRestart, WithoutAShellTheProgramIsStartedOnceAllTheSame)
{
    ScratchFolder folder;

    const ChildResult result =
        runChild({"/usr/bin/env", "KESTREL_FAULT=execv=/bin/sh:1:ENOENT", "KESTREL_FAULT_HURRY=100",
                  BASE_CHILD, "restart", (folder.path() / "mark").string(), "leaves"});

    EXPECT_TRUE(hasPattern(result.strOutput,
                           "^kill -9 [0-9]+   \\(sub_fd:[0-9]+\\)\nrestarted restart leaves, "
                           "open: 256, no child\n$"))
        << result.strOutput;
}

TEST(DaemonRestart, ProgramThatCannotBeStartedEndsTheRestartWith127)
{
    const ChildResult result =
        runChild({"/usr/bin/env", "KESTREL_FAULT_HURRY=100", BASE_CHILD, "restart-fails", "exec"});

    // The caller is killed; the process between exits with 0.
    EXPECT_TRUE(
        hasPattern(result.strOutput, "^kill -9 [0-9]+   \\(sub_fd:[0-9]+\\)\nstatuses -1 0 127\n$"))
        << result.strOutput;
}

TEST(DaemonRestart, FailedForkExitsWithOne)
{
    ScratchFolder folder;
    const std::string strJournal = (folder.path() / "journal").string();

    const ChildResult result =
        runChild({"/usr/bin/env", "KESTREL_FAULT_JOURNAL=" + strJournal,
                  "KESTREL_FAULT_JOURNAL_CALLS=setsid", BASE_CHILD, "restart-fails", "fork"});

    EXPECT_EQ("fork() failed\n", result.strError);
    EXPECT_EQ("", result.strOutput);
    EXPECT_EQ(1, result.nStatus);
    EXPECT_EQ("", folder.read("journal")) << "the caller goes no way of the child's";
}

TEST(DaemonRestart, FailedSessionEndsTheRestartWithOne)
{
    const ChildResult result = runChild({BASE_CHILD, "restart-fails", "setsid"});

    EXPECT_EQ("setsid() failed\n", result.strError);
    EXPECT_EQ("returned\nstatuses 1\n", result.strOutput);
    EXPECT_EQ(0, result.nStatus);
}
