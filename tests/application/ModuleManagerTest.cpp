// The module manager with scripted modules, in programs of its own: bringing up and down, console.
#include "ModuleManager.h"

#include <sstream>
#include <string>
#include <vector>

#include <sys/resource.h>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "DebugCmdEvent.h"
#include "Eventually.h"
#include "ManagerChild.h"
#include "Pattern.h"
#include "ScratchFolder.h"

namespace {

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

TEST(ModuleManager, DeliberateModulesAreNamedAsTheirTypesAreSpelt)
{
    const ChildResult result = run({"QUIT=1"});

    EXPECT_EQ(0U, result.strOutput.find(logged("initModule", "12SystemModule init ...\n")));
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

TEST(ModuleManager, ConsolesThreadIsAsNiceAsTheService)
{
    ChildProgram child(program({"CONSOLE=1"}));
    child.write("a b\n");
    ASSERT_TRUE(child.waitForOutput("2 words <a> <b>")); // the thread is set up, and runs its body
    const pid_t tid = threadOf(child.pid(), "tty_debug");
    ASSERT_LT(0, tid);

    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(child.pid())),
              getpriority(PRIO_PROCESS, static_cast<id_t>(tid)));

    child.write("q\n");
    EXPECT_EQ(0, child.wait().nStatus);
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

TEST(ModuleManager, CommandIsAnsweredByZero)
{
    const char* apWords[] = {"SystemManager", "other"};
    const int nWords = 2;
    DebugCmdEvent event(&nWords, apWords);

    EXPECT_EQ(0, ModuleManager::getInstance().onDebugCmd(&event));
}

// Nothing starts the console, though its thread waits from the beginning.
TEST(ModuleManager, DeliberateWithoutItsThreadStartedTheConsoleReadsNothing)
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
