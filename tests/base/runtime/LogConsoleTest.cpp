// Log lines on the console: colours, and when there are none.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Fault.h"
#include "Log.h"
#include "LogCapture.h"
#include "LogLine.h"
#include "Pattern.h"

namespace {

/** What the console shows of one line, in a program of its own: the verdict on TERM is kept. */
std::string consoleWith(const char* pTerm, const char* pLevel)
{
    std::vector<std::string> vecArgument{"/usr/bin/env", "-u", "TERM"};
    if (nullptr != pTerm) {
        vecArgument.push_back(std::string("TERM=") + pTerm);
    }
    for (const char* pMore : {BASE_CHILD, "console", pLevel}) {
        vecArgument.emplace_back(pMore);
    }
    return runChild(vecArgument).strOutput;
}

} // namespace

TEST(LogConsole, KnownTerminalsGetTheColourOfTheLevel)
{
    const char* apColour[] = {"\033[m",        "\033[0;32;31m", "\033[0;35m",
                              "\033[0;32;31m", "\033[0;32;33m", "\033[0;32m",
                              "\033[0;32;34m", "\033[m",        "\033[m"};
    for (int i = 0; i <= 8; ++i) {
        EXPECT_EQ(std::string(apColour[i]) + "text\n\033[m",
                  consoleWith("xterm", std::to_string(i).c_str()));
    }
    for (const char* pTerm : {"xterm-color", "xterm-256color", "screen", "linux", "cygwin"}) {
        EXPECT_EQ("\033[0;35mtext\n\033[m", consoleWith(pTerm, "2")) << pTerm;
    }
}

TEST(LogConsole, OtherTerminalsGetTheResetAlone)
{
    EXPECT_EQ("text\n\033[m", consoleWith("vt100", "2"));
    EXPECT_EQ("text\n\033[m", consoleWith("xterm-mono", "2"));
    EXPECT_EQ("text\n\033[m", consoleWith("", "2"));
    EXPECT_EQ("text\n\033[m", consoleWith(nullptr, "2"));
}

TEST(LogConsole, ConsoleAloneShowsAllFieldsAtFirst)
{
    const ChildResult result = runChild({"/usr/bin/env", "-u", "TERM", BASE_CHILD, "layout"});

    EXPECT_TRUE(hasPattern(result.strOutput,
                           "^\\[error\\] \\[[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\] "
                           "\\[LogScenarios \\+[0-9]+\\] \\[runLayout\\] \\[[0-9]+\\] text\n"))
        << result.strOutput;
}

TEST(LogConsole, LevelsToEightAreShownAtFirst)
{
    EXPECT_EQ("text\n\033[m", consoleWith(nullptr, "8"));
    EXPECT_EQ("", consoleWith(nullptr, "9"));
}

TEST(LogConsole, VerdictIsKeptOnceTermIsSet)
{
    // Unset for the first line, then linux, then vt100.
    const ChildResult result =
        runChild({"/usr/bin/env", "-u", "TERM", BASE_CHILD, "console-verdict"});

    EXPECT_EQ("one\n\033[m"
              "\033[0;35mtwo\n\033[m"
              "\033[0;35mthree\n\033[m",
              result.strOutput);
}

TEST(LogConsole, WithoutTheConsoleSinkNothingIsPrinted)
{
    LogCapture log(0);
    testing::internal::CaptureStdout();

    LOG_LINE(2, "text\n");

    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("text\n", log.text());
}
