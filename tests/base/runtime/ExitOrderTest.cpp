// Process exits in every order in which the singletons were first used, in programs of their own.
#include <algorithm>
#include <filesystem>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Pattern.h"
#include "ScratchFolder.h"

namespace {

/** @return what the log file holds, the newest when there are two */
std::string expectCleanExit(const std::string& strOrder)
{
    const ScratchFolder folder;
    const ChildResult result =
        runChild({BASE_CHILD, "exit-order", strOrder, (folder.path() / "log").string()});
    EXPECT_EQ(0, result.nStatus) << strOrder << ": " << result.strOutput << result.strError;
    EXPECT_EQ("", result.strError) << strOrder;
    EXPECT_EQ(std::string::npos, result.strOutput.find("no viewer")) << strOrder;
    std::set<std::string> setFile;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
        setFile.insert(entry.path().filename().string());
    }
    for (const std::string& strFile : setFile) {
        EXPECT_EQ(std::string::npos, folder.read(strFile).find("mutex lock error"))
            << strOrder << ": a lock was used after its end";
    }
    return setFile.empty() ? "" : folder.read(setFile.rbegin()->c_str());
}

} // namespace

// l log, f log file without the log, s log server, m a module with a thread, q quit bus.
TEST(ExitOrder, EveryOrderOfFirstUseEndsWithZero)
{
    std::string strOrder = "flms";
    do {
        expectCleanExit(strOrder);
    } while (std::next_permutation(strOrder.begin(), strOrder.end()));
}

// S and F as main does it: the server runs, which takes a moment to stop.
TEST(ExitOrder, OrdersWithARunningServerEndWithZero)
{
    for (const char* pOrder : {"SFlm", "FSlm", "mSF", "lmFS", "fmS"}) {
        expectCleanExit(pOrder);
    }
}

TEST(ExitOrder, EachAloneEndsWithZero)
{
    for (const char* pOne : {"l", "b", "q", "f", "F", "s", "S", "m", "g"}) {
        expectCleanExit(pOne);
    }
}

// The log file outlives every object that logs in its destructor, whichever was used first.
TEST(ExitOrder, LastLinesOfAModuleReachTheLogFile)
{
    for (const char* pOrder : {"mF", "lmF", "mlF", "Fm", "fmF", "mfF", "lmFS", "mSF", "qmF"}) {
        const std::string strFile = expectCleanExit(pOrder);

        EXPECT_TRUE(hasPattern(strFile, "module goes\n(.*\n)*.*destory thread.* name:module\\)\n"))
            << pOrder << ": " << strFile;
    }
}

TEST(ExitOrder, LogsEndClosesTheLogFile)
{
    const std::string strFile = expectCleanExit("fxFl");

    EXPECT_NE(std::string::npos, strFile.find("line\n")) << strFile;
    EXPECT_EQ(std::string::npos, strFile.find("too late")) << strFile;
}

TEST(ExitOrder, LogsEndLeavesALogFileThatItDoesNotHoldOpen)
{
    const std::string strFile = expectCleanExit("fxFln");

    EXPECT_NE(std::string::npos, strFile.find("too late\n")) << strFile;
}

TEST(ExitOrder, ServiceOrderWithAViewerConnectedEndsWithZero)
{
    expectCleanExit("lFSmvg");
    expectCleanExit("gmSvFl");
    expectCleanExit("fqbSvm");
}
