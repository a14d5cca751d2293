// Process exits in every order in which the singletons were first used, in programs of their own.
#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "FreePort.h"
#include "ScratchFolder.h"

namespace {

ChildResult exitAfter(const std::string& strOrder)
{
    ScratchFolder folder;
    return runChild({BASE_CHILD, "exit-order", strOrder, (folder.path() / "log").string(),
                     std::to_string(freePort())});
}

void expectCleanExit(const std::string& strOrder)
{
    const ChildResult result = exitAfter(strOrder);
    EXPECT_EQ(0, result.nStatus) << strOrder << ": " << result.strOutput << result.strError;
    EXPECT_EQ("", result.strError) << strOrder;
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

TEST(ExitOrder, ServiceOrderWithAViewerConnectedEndsWithZero)
{
    expectCleanExit("lFSmvg");
    expectCleanExit("gmSvFl");
    expectCleanExit("fqbSvm");
}
