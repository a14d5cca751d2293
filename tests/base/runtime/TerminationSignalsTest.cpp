// What termination signals do, in programs of its own.
#include "TerminationSignals.h"

#include <csignal>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Pattern.h"
#include "ScratchFolder.h"

namespace {

ChildResult runTermination(int nLimit, const std::vector<int>& vecSignal)
{
    std::vector<std::string> vecArgument{BASE_CHILD, "termination", std::to_string(nLimit)};
    for (const int nSignal : vecSignal) {
        vecArgument.push_back(std::to_string(nSignal));
    }
    return runChild(vecArgument);
}

std::string masked(const std::string& strText)
{
    // A signal sent by a process has the sender's ids in place of an address.
    return replacePattern(strText, "addr\\((0|0x[0-9a-f]+)\\)", "addr(ADDRESS)");
}

std::string report(int nSignal)
{
    return "\n\n* System is terminated . signal(" + std::to_string(nSignal) + ") addr(ADDRESS) \n";
}

} // namespace

TEST(TerminationSignals, EverySignalIsReportedPublishedAndReturned)
{
    for (const int nSignal : {SIGTERM, SIGINT, SIGQUIT, SIGILL, SIGABRT, SIGFPE, SIGBUS, SIGHUP,
                              SIGSEGV, SIGIO, SIGSYS, SIGTRAP, SIGTSTP, SIGXCPU, SIGXFSZ}) {
        const ChildResult result = runTermination(5, {nSignal});

        EXPECT_EQ("no SIGPIPE\n" + report(nSignal) + "quit\ncount 1 seen 1 quits 1 allocations 0\n",
                  masked(result.strOutput));
        EXPECT_EQ(0, result.nStatus) << nSignal;
    }
}

TEST(TerminationSignals, LimitEndsTheProcessWithStatusNine)
{
    const ChildResult result = runTermination(2, {SIGTERM, SIGINT});

    EXPECT_EQ("no SIGPIPE\n" + report(SIGTERM) + "quit\ncount 1 seen 1 quits 1 allocations 0\n" +
                  report(SIGINT) + "quit\n",
              masked(result.strOutput));
    EXPECT_EQ(9, result.nStatus);
}

TEST(TerminationSignals, EveryInstallCountsFromZero)
{
    const ChildResult result = runChild({BASE_CHILD, "termination-again"});

    const std::string strRound = "count 0 seen 0\n" + report(SIGTERM) + "count 1 seen 1\n";
    EXPECT_EQ("count 0 seen 0\n" + strRound + strRound + strRound, masked(result.strOutput));
    EXPECT_EQ(0, result.nStatus);
}

TEST(TerminationSignals, EndPutsBackWhatItHasInstalled)
{
    const ChildResult result = runChild({BASE_CHILD, "termination-end"});

    EXPECT_EQ("a handler\na handler\na handler\na handler\nignored\n"
              "default\ndefault\na handler\na handler\nignored\n",
              result.strOutput);
}

TEST(TerminationSignals, SignalDuringTheExitIsPublishedToTheEnd)
{
    const ChildResult result = runChild({BASE_CHILD, "termination-late"});

    EXPECT_EQ(report(SIGTERM) + "quit\n", masked(result.strOutput));
    EXPECT_EQ(0, result.nStatus);
}

TEST(TerminationSignals, ErrnoOfWhatASignalInterruptsIsKept)
{
    const ChildResult result = runChild({BASE_CHILD, "termination-errno"});

    EXPECT_EQ(report(SIGTERM) + "kept\n", masked(result.strOutput));
    EXPECT_EQ(0, result.nStatus);
}

TEST(TerminationSignals, RestartComesBeforeTheReport)
{
    const ChildResult result = runChild({BASE_CHILD, "termination-restart-fails"});

    EXPECT_EQ("fork() failed\n", result.strError);
    EXPECT_EQ("", result.strOutput);
    EXPECT_EQ(1, result.nStatus);
}

TEST(TerminationSignals, SecondArrivalOfASignalTakesTheDefaultEffect)
{
    const ChildResult result = runTermination(5, {SIGTERM, SIGTERM});

    EXPECT_EQ(SIGTERM, result.nSignal);
    EXPECT_EQ(std::string::npos, result.strOutput.find("count 2"));
}

TEST(TerminationSignals, InterruptedCallsAreNotRestarted)
{
    EXPECT_EXIT(
        {
            TerminationSignals::getInstance().install(false, nullptr, Time(), 5);
            struct sigaction action = {};
            (void)sigaction(SIGTERM, nullptr, &action);
            const unsigned uFlags = static_cast<unsigned>(action.sa_flags);
            _exit((SA_SIGINFO | SA_RESETHAND) == (uFlags & (SA_SIGINFO | SA_RESETHAND | SA_RESTART))
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(TerminationSignals, FaultAddressIsPrinted)
{
    const ChildResult result = runChild({BASE_CHILD, "termination-address"});

    EXPECT_EQ("\n\n* System is terminated . signal(11) addr(0x1230) \n", result.strOutput);
    EXPECT_EQ(SIGSEGV, result.nSignal);
}

TEST(TerminationSignals, ReportNeedsNoLockOfStandardOutput)
{
    const ChildResult result = runChild({BASE_CHILD, "termination-locked"});

    EXPECT_EQ(report(SIGTERM) + "returned\n", masked(result.strOutput));
    EXPECT_EQ(SIGKILL, result.nSignal); // its own
}

TEST(TerminationSignals, RestartFlagEndsAtTheFirstSignalAndStartsTheProgramAgain)
{
    ScratchFolder folder;

    const ChildResult result =
        runChild({"/usr/bin/env", "KESTREL_FAULT_JOURNAL=" + (folder.path() / "journal").string(),
                  "KESTREL_FAULT_JOURNAL_CALLS=select", BASE_CHILD, "termination-restart",
                  (folder.path() / "mark").string(), "with its arguments"});

    EXPECT_EQ(9, result.nStatus);
    EXPECT_NE(std::string::npos, masked(result.strOutput).find(report(SIGTERM)));
    EXPECT_TRUE(hasPattern(result.strOutput, "kill -9 [0-9]+   \\(sub_fd:[0-9]+\\)\n"))
        << result.strOutput;
    EXPECT_NE(std::string::npos, result.strOutput.find("restarted with its arguments, blocked:\n"))
        << result.strOutput;
    EXPECT_TRUE(
        hasPattern(folder.read("journal"), "^.*\\|select 0\\.100000\n.*\\|select 3\\.000000\n$"))
        << folder.read("journal");
}

TEST(TerminationSignals, StackIsPrintedAsReturnAddresses)
{
    const ChildResult result = runChild({BASE_CHILD, "stack"});

    EXPECT_TRUE(hasPattern(result.strOutput, "^(0x[0-9a-f]+ ){3,}$")) << result.strOutput;
}
