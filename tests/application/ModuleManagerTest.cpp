// The module manager with scripted modules, in programs of its own: bringing up and down, console.
#include "ModuleManager.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Eventually.h"
#include "Pattern.h"
#include "ScratchFolder.h"

namespace {

std::vector<std::string> program(const std::vector<std::string>& vecScript)
{
    std::vector<std::string> vecArgument{"/usr/bin/env", "-u", "TERM"};
    vecArgument.insert(vecArgument.end(), vecScript.begin(), vecScript.end());
    vecArgument.emplace_back(MANAGER_CHILD);
    return vecArgument;
}

/** Without the resets of the console's colour and without the lines of threads. */
std::string plain(const std::string& strOutput)
{
    const std::string strText = replacePattern(strOutput, "\033\\[m", "");
    return replacePattern(strText, "\\[info \\] \\[Thread[^\n]*\n", "");
}

ChildResult run(const std::vector<std::string>& vecScript, const std::string& strInput = "")
{
    ChildResult result = runChild(program(vecScript), strInput);
    result.strOutput = plain(result.strOutput);
    return result;
}

std::string logged(const char* pFunction, const char* pText)
{
    return std::string("[debug] [ModuleManager.cpp ] [") + pFunction + "] " + pText;
}

std::string up(const char* pModule, const char* pTyped)
{
    const std::string strTyped = pTyped;
    return logged("initModule", (strTyped + " init ...\n").c_str()) + pModule + " init\n" +
           logged("initModule", (strTyped + " running ...\n").c_str()) + pModule + " start\n";
}

std::string down(const char* pModule, const char* pTyped)
{
    const std::string strTyped = pTyped;
    return logged("moduleUnInitialize", (strTyped + " stop ...\n").c_str()) + pModule + " stop\n" +
           logged("moduleUnInitialize", (strTyped + " uninit ...\n").c_str()) + pModule +
           " uninit\n";
}

const std::string SYSTEM_UP = up("SystemModule", "12SystemModule");
const std::string SYSTEM_DOWN = down("SystemModule", "12SystemModule");
const std::string COMMUCATION_UP = up("CommucationModule", "17CommucationModule");
const std::string COMMUCATION_DOWN = down("CommucationModule", "17CommucationModule");
const std::string WHOLE_LIFE = SYSTEM_UP + COMMUCATION_UP + "up 0\nloop 0\n" + COMMUCATION_DOWN +
                               SYSTEM_DOWN + "down 0\nstatus 0\n";

/** Where a child notes chosen calls; its waits for its own thread's start and end are left out. */
class CallFile
{
public:
    explicit CallFile(const char* pCalls) : m_strCalls(pCalls) {}

    std::vector<std::string> environment() const
    {
        return {"KESTREL_FAULT_JOURNAL=" + (m_folder.path() / "journal").string(),
                "KESTREL_FAULT_JOURNAL_CALLS=" + m_strCalls};
    }

    std::vector<std::string> lines() const
    {
        std::vector<std::string> vecLine;
        std::istringstream text(m_folder.read("journal"));
        for (std::string strLine; std::getline(text, strLine);) {
            if (!hasPattern(strLine, "select 0\\.0(03|05|10)000$")) {
                vecLine.push_back(strLine);
            }
        }
        return vecLine;
    }

private:
    std::string m_strCalls;
    ScratchFolder m_folder;
};

bool hasThread(pid_t pid, const char* pName)
{
    const std::string strTasks = "/proc/" + std::to_string(pid) + "/task";
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(strTasks, ignored)) {
        std::string strName;
        std::getline(std::ifstream(entry.path() / "comm"), strName);
        if (pName == strName) {
            return true;
        }
    }
    return false;
}

/** What the console does with its input, between the start and the end of the service. */
std::string console(const std::string& strInput)
{
    const ChildResult result = run({"CONSOLE=1"}, strInput);
    EXPECT_EQ(0, result.nStatus);
    const std::string strBefore = SYSTEM_UP;
    EXPECT_EQ(0u, result.strOutput.find(strBefore)) << result.strOutput;
    EXPECT_NE(std::string::npos, result.strOutput.find("loop 0\n" + COMMUCATION_DOWN))
        << result.strOutput;
    // What remains when the lines of the lifecycle are taken away.
    std::string strText = result.strOutput;
    for (const char* pPattern :
         {"\\[debug\\] \\[ModuleManager.cpp \\] \\[(initModule|moduleUnInitialize)\\] [^\n]*\n",
          "(Commucation|System)Module (init|start|stop|uninit)\n", "(up|loop|down|status) 0\n"}) {
        strText = replacePattern(strText, pPattern, "");
    }
    return strText;
}

std::string words(int nCount, const std::vector<std::string>& vecWord)
{
    std::string strText = std::to_string(nCount) + " words";
    for (size_t i = 0; i < 10; ++i) {
        strText += " <" + ((i < vecWord.size()) ? vecWord[i] : "") + ">";
    }
    return strText + "\n";
}

} // namespace

TEST(ModuleManager, DeliberateModulesAreMadeBeforeAnyIsBroughtUp)
{
    const ChildResult result = run({"MAKING=1", "QUIT=1"});

    EXPECT_EQ("SystemModule made\nCommucationModule made\n" + WHOLE_LIFE, result.strOutput);
}

TEST(ModuleManager, ModulesComeUpInOrderAndGoDownInReverse)
{
    const ChildResult result = run({"QUIT=1"});

    EXPECT_EQ(WHOLE_LIFE, result.strOutput);
    EXPECT_EQ("", result.strError);
    EXPECT_EQ(0, result.nStatus);
}

TEST(ModuleManager, FirstModuleThatFailsToInitialiseEndsTheStart)
{
    const ChildResult result = run({"SystemModule_init=2"});

    EXPECT_EQ(logged("initModule", "12SystemModule init ...\n") + "SystemModule init\n" +
                  logged("initModule", "12SystemModule init failed, error(2)\n") + "up 2\n",
              result.strOutput);
    EXPECT_EQ(2, result.nStatus);
}

TEST(ModuleManager, FirstModuleThatFailsToStartStaysInitialised)
{
    const ChildResult result = run({"SystemModule_start=3"});

    EXPECT_EQ(SYSTEM_UP + logged("initModule", "12SystemModule start failed, error(3)\n") +
                  "up 3\n",
              result.strOutput);
    EXPECT_EQ(3, result.nStatus);
}

TEST(ModuleManager, SecondModuleThatFailsToInitialiseBringsTheFirstDown)
{
    const ChildResult result = run({"CommucationModule_init=3"});

    EXPECT_EQ(SYSTEM_UP + logged("initModule", "17CommucationModule init ...\n") +
                  "CommucationModule init\n" +
                  logged("initModule", "17CommucationModule init failed, error(3)\n") +
                  SYSTEM_DOWN + "up 3\n",
              result.strOutput);
    EXPECT_EQ(3, result.nStatus);
}

TEST(ModuleManager, SecondModuleThatFailsToStartBringsTheFirstDownOnly)
{
    const ChildResult result = run({"CommucationModule_start=2"});

    EXPECT_EQ(SYSTEM_UP + COMMUCATION_UP +
                  logged("initModule", "17CommucationModule start failed, error(2)\n") +
                  SYSTEM_DOWN + "up 2\n",
              result.strOutput);
    EXPECT_EQ(2, result.nStatus);
}

TEST(ModuleManager, FailedStopEndsTheWalkDown)
{
    const ChildResult result = run({"QUIT=1", "CommucationModule_stop=2"});

    EXPECT_EQ(SYSTEM_UP + COMMUCATION_UP + "up 0\nloop 0\n" +
                  logged("moduleUnInitialize", "17CommucationModule stop ...\n") +
                  "CommucationModule stop\n" +
                  logged("moduleUnInitialize", "17CommucationModule stop failed, error(2)\n") +
                  "down 2\nstatus 0\n",
              result.strOutput);
    EXPECT_EQ(0, result.nStatus);
}

TEST(ModuleManager, FailedUninitEndsTheWalkDown)
{
    const ChildResult result = run({"QUIT=1", "SystemModule_uninit=3"});

    EXPECT_EQ(SYSTEM_UP + COMMUCATION_UP + "up 0\nloop 0\n" + COMMUCATION_DOWN + SYSTEM_DOWN +
                  logged("moduleUnInitialize", "12SystemModule uninit failed, error(3) ...\n") +
                  "down 3\nstatus 0\n",
              result.strOutput);
}

TEST(ModuleManager, QuitIsLookedForEverySecond)
{
    const CallFile journal("select");
    ChildProgram child(program(journal.environment()));
    ASSERT_TRUE(child.waitForOutput("up 0\n"));

    EXPECT_TRUE(eventually([&] { return journal.lines().size() >= 2; }));
    kill(child.pid(), SIGUSR1);
    EXPECT_EQ(0, child.wait().nStatus);

    for (const std::string& strLine : journal.lines()) {
        EXPECT_EQ("manager_child|select 1.001000", strLine);
    }
}

TEST(ModuleManager, ConsolesThreadIsDetached)
{
    const CallFile journal("pthread_create pthread_join");
    std::vector<std::string> vecScript = journal.environment();
    vecScript.emplace_back("QUIT=1");

    EXPECT_EQ(0, run(vecScript).nStatus);

    EXPECT_EQ(std::vector<std::string>{"manager_child|pthread_create detached"}, journal.lines());
}

TEST(ModuleManager, ItsEndLeavesTheBus)
{
    const ChildResult result = run({"LATE=1", "SystemModule_init=2"});

    EXPECT_NE(std::string::npos, result.strOutput.find("late untouched\n")) << result.strOutput;
}

TEST(ModuleManager, OnlyItsOwnTwoWordsOpenAShell)
{
    struct Case
    {
        const char* pCommand;
        bool bShell;
    };
    const Case aCase[] = {
        {"2 SystemManager shell", true},  {"3 SystemManager shell", true},
        {"1 SystemManager shell", false}, {"0 SystemManager shell", false},
        {"2 Other shell", false},         {"2 SystemManager other", false},
        {"2 systemmanager shell", false}, {"2 SystemManager shells", false},
    };
    for (const Case& entry : aCase) {
        const CallFile journal("system");
        std::vector<std::string> vecScript = journal.environment();
        vecScript.emplace_back("KESTREL_FAULT=system:1-:ENOMEM");
        vecScript.emplace_back(std::string("COMMAND=") + entry.pCommand);
        vecScript.emplace_back("QUIT=1");

        EXPECT_EQ(0, run(vecScript).nStatus) << entry.pCommand;

        const std::vector<std::string> vecShell = {"manager_child|system /bin/sh"};
        EXPECT_EQ(entry.bShell ? vecShell : std::vector<std::string>{}, journal.lines())
            << entry.pCommand;
    }
}

TEST(ModuleManager, OwnStepsDoNothing)
{
    ModuleManager& manager = ModuleManager::getInstance();

    EXPECT_EQ(RET_SUCCESS, manager.initModule());
    EXPECT_EQ(RET_SUCCESS, manager.startModule());
    EXPECT_EQ(RET_SUCCESS, manager.stopModule());
    EXPECT_EQ(RET_SUCCESS, manager.uninitModule());
    EXPECT_EQ(0, manager.getStatus());
    EXPECT_EQ(&manager, &ModuleManager::getInstance());
}

// Deliberate: nothing starts the console, though its thread waits from the beginning.
TEST(ModuleManager, WithoutItsThreadStartedTheConsoleReadsNothing)
{
    const CallFile journal("select fgets");
    ChildProgram child(program(journal.environment()));
    child.write("q\nSystemManager words\n");
    ASSERT_TRUE(child.waitForOutput("up 0\n"));
    EXPECT_TRUE(hasThread(child.pid(), "tty_debug"));
    EXPECT_TRUE(eventually([&] { return !journal.lines().empty(); })); // a pass, and no quit seen

    kill(child.pid(), SIGUSR1); // publishes the quit event
    const ChildResult result = child.wait();

    EXPECT_EQ(WHOLE_LIFE, plain(result.strOutput));
    EXPECT_EQ(0, result.nStatus);
}

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

// Deliberate: words are not bounded by their buffers of 128 bytes, only by the end of the table.
TEST(ModuleManagerConsole, LongWordRunsIntoTheNextBuffers)
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
