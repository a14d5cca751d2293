// The debug console of the module manager.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Eventually.h"
#include "ManagerChild.h"
#include "ModuleManager.h"
#include "ScratchFolder.h"

TEST(ModuleManagerConsole, QuitAndItsShortFormEndTheService)
{
    EXPECT_EQ("", console("q\n"));
    EXPECT_EQ("", console("quit\n"));
}

TEST(ModuleManagerConsole, NearlyAQuitIsNone)
{
    // One word each, ignored; what follows is still read.
    for (const char* pLine : {"Q", "quit ", " q", "qq", "Quit", "quite", "qui"}) {
        EXPECT_EQ(words(2, {"a", "b"}), console(std::string(pLine) + "\na b\nq\n")) << pLine;
    }
}

TEST(ModuleManagerConsole, EmptyLinesAndSingleWordsPublishNothing)
{
    EXPECT_EQ("", console("\n \t \nword\n  word  \nSystemManager\nq\n"));
}

TEST(ModuleManagerConsole, WordsArePublished)
{
    EXPECT_EQ(words(2, {"two", "words"}) + words(3, {"and", "three", "more"}),
              console("two words\n  and\t three   more \nq\n"));
}

TEST(ModuleManagerConsole, TenWordsAreTheMost)
{
    EXPECT_EQ(words(10, {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10"}),
              console("1 2 3 4 5 6 7 8 9 10 11 12\nq\n"));
}

TEST(ModuleManagerConsole, WordsOfTheLastLineAreCleared)
{
    EXPECT_EQ(words(3, {"long", "first", "line"}) + words(2, {"a", "b"}),
              console("long first line\na b\nq\n"));
}

TEST(ModuleManagerConsole, PassTellsWhetherItsThreadGoesOn)
{
    const ScratchFolder folder;
    folder.write("typed", "\nword\ntwo words\nquit\nq\n");
    ASSERT_NE(nullptr, freopen((folder.path() / "typed").c_str(), "r", stdin));
    ModuleManager& manager = ModuleManager::getInstance();

    EXPECT_EQ(0, manager.debugCmdThread());
    EXPECT_EQ(0, manager.debugCmdThread());
    EXPECT_EQ(0, manager.debugCmdThread());
    EXPECT_EQ(1, manager.debugCmdThread());
    EXPECT_EQ(1, manager.debugCmdThread());
    EXPECT_EQ(-1, manager.debugCmdThread()) << "the end of the input";
}

TEST(ModuleManagerConsole, LastLineNeedsALineEndToQuit)
{
    // "q" alone is no quit; the end of the input that follows is a failure of the console only.
    ChildProgram child(program({"CONSOLE=1"}));
    child.write("a b\nq");
    child.closeInput();
    ASSERT_TRUE(child.waitForOutput("fgets err\n"));
    EXPECT_TRUE(eventually([&] { return !hasThread(child.pid(), "tty_debug"); }));
    kill(child.pid(), SIGUSR1);
    const ChildResult result = child.wait();

    const std::string strText = plain(result.strOutput);
    const char* const pLine = "[error] [ModuleManager.cpp ] [debugCmdThread] fgets err\n";
    EXPECT_NE(std::string::npos, strText.find(pLine));
    EXPECT_EQ(strText.find(pLine), strText.rfind(pLine)) << "once";
    EXPECT_EQ(0, result.nStatus);
}

// Words are not bounded by their buffers of 128 bytes, only by the end of the table.
TEST(ModuleManagerConsole, DeliberateLongWordRunsIntoTheNextBuffers)
{
    const std::string strLong(200, 'a');
    // The second word overwrites the long one's tail, from byte 128 on.
    EXPECT_EQ(words(2, {std::string(128, 'a') + "b", "b"}), console(strLong + " b\nq\n"));
    // As the last word it stays whole, and its tail is what the next buffer begins with.
    EXPECT_EQ(words(2, {"b", strLong, std::string(72, 'a')}), console("b " + strLong + "\nq\n"));
}

TEST(ModuleManagerConsole, LongWordIsCutAtTheEndOfTheTable)
{
    const std::string strLong(200, 'z');
    EXPECT_EQ(words(10, {"1", "2", "3", "4", "5", "6", "7", "8", "9", std::string(127, 'z')}),
              console("1 2 3 4 5 6 7 8 9 " + strLong + "\nq\n"));
}

TEST(ModuleManagerConsole, LineLongerThanItsBufferGoesOnAsTheNextLine)
{
    // 255 characters are one read: "a " and 253 times b; the rest is "bb c".
    EXPECT_EQ(words(2, {"a", std::string(253, 'b'), std::string(125, 'b')}) + words(2, {"bb", "c"}),
              console("a " + std::string(255, 'b') + " c\nq\n"));
}

TEST(ModuleManagerConsole, ShellCommandRunsAnInteractiveShell)
{
    ChildProgram child(program({"CONSOLE=1"}));
    child.write("SystemManager shell\n");
    // Once the shell runs, what is typed is its own.
    const std::string strTasks = "/proc/" + std::to_string(child.pid()) + "/task";
    ASSERT_TRUE(eventually([&] {
        for (const auto& entry : std::filesystem::directory_iterator(strTasks)) {
            std::string strChildren;
            std::getline(std::ifstream(entry.path() / "children"), strChildren);
            if (!strChildren.empty()) {
                return true;
            }
        }
        return false;
    }));
    child.write("echo from the shell; exit\n");
    EXPECT_TRUE(child.waitForOutput("from the shell\n"));
    EXPECT_TRUE(child.waitForOutput("2 words <SystemManager> <shell>")); // the next subscriber's
    child.write("q\n");

    EXPECT_EQ(0, child.wait().nStatus);
}

TEST(ModuleManagerConsole, OtherCommandsOfTheManagerDoNothing)
{
    EXPECT_EQ(words(2, {"SystemManager", "other"}) + words(2, {"Other", "shell"}),
              console("SystemManager other\nOther shell\nq\n"));
}
