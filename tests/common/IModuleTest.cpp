// The guarded steps of a module's life, and the console's commands that every module sees.
#include "IModule.h"

#include <string>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "DebugCmdEvent.h"
#include "EventBus.h"
#include "LogCapture.h"

namespace {

class ScriptedModule : public IModule
{
public:
    RET_E initModule() override
    {
        return step("init ");
    }
    RET_E startModule() override
    {
        return step("start ");
    }
    RET_E stopModule() override
    {
        return step("stop ");
    }
    RET_E uninitModule() override
    {
        return step("uninit ");
    }
    int onDebugCmd(Event* pEvent) override
    {
        const auto& event = dynamic_cast<DebugCmdEvent&>(*pEvent);
        m_strCalls += std::string(event.m_ppWords[0]) + " ";
        return 0;
    }

    std::string takeCalls()
    {
        std::string strCalls;
        strCalls.swap(m_strCalls);
        return strCalls;
    }

    RET_E m_eResult = RET_SUCCESS;

private:
    RET_E step(const char* pName)
    {
        m_strCalls += pName;
        return m_eResult;
    }

    std::string m_strCalls;
};

void expectRefused(RET_E eResult, const LogCapture& log, const char* pFunction, int nStatus)
{
    EXPECT_EQ(RET_FAILED, eResult);
    EXPECT_EQ(std::string("[debug] [application/common/include/IModule ] [") + pFunction +
                  "] Current status is " + std::to_string(nStatus) + " \n",
              log.text());
}

void publishCommand(const char* pFirst, const char* pSecond)
{
    const int nWords = 2;
    const char* apWords[] = {pFirst, pSecond};
    DebugCmdEvent event(&nWords, apWords);
    EventBus<DebugCmdEvent>::publish(event);
}

} // namespace

TEST(IModule, StatusesHaveTheirNumbers)
{
    EXPECT_EQ(0, MODULE_STATUS_NONE);
    EXPECT_EQ(1, MODULE_STATUS_INITED);
    EXPECT_EQ(2, MODULE_STATUS_RUNNING);
    EXPECT_EQ(4, MODULE_STATUS_STOPPED);
    EXPECT_EQ(8, MODULE_STATUS_UNINITED);
}

TEST(IModule, WholeLifeWithRestartAndReinitialisation)
{
    ScriptedModule module;
    EXPECT_EQ(0, module.getStatus());
    EXPECT_EQ(RET_SUCCESS, module.init());
    EXPECT_EQ(1, module.getStatus());
    EXPECT_EQ(RET_SUCCESS, module.start());
    EXPECT_EQ(2, module.getStatus());
    EXPECT_EQ(RET_SUCCESS, module.stop());
    EXPECT_EQ(4, module.getStatus());
    EXPECT_EQ(RET_SUCCESS, module.start());
    EXPECT_EQ(RET_SUCCESS, module.stop());
    EXPECT_EQ(RET_SUCCESS, module.uninit());
    EXPECT_EQ(8, module.getStatus());
    EXPECT_EQ(RET_SUCCESS, module.init());
    EXPECT_EQ(1, module.getStatus());

    EXPECT_EQ("init start stop start stop uninit init ", module.takeCalls());
}

TEST(IModule, UninitMaySkipTheStart)
{
    ScriptedModule module;
    ASSERT_EQ(RET_SUCCESS, module.init());

    EXPECT_EQ(RET_SUCCESS, module.uninit());

    EXPECT_EQ(8, module.getStatus());
}

TEST(IModule, StepsAreRefusedByStatus)
{
    struct Step
    {
        const char* pName;
        RET_E (IModule::*pStep)();
    };
    const Step INIT{"init", &IModule::init};
    const Step START{"start", &IModule::start};
    const Step STOP{"stop", &IModule::stop};
    const Step UNINIT{"uninit", &IModule::uninit};
    const struct
    {
        int nStatus;
        std::vector<Step> vecWay; // to that status
        std::vector<Step> vecRefused;
    } aCase[] = {
        {0, {}, {START, STOP, UNINIT}},
        {1, {INIT}, {INIT, STOP}},
        {2, {INIT, START}, {INIT, START, UNINIT}},
        {4, {INIT, START, STOP}, {INIT, STOP}},
        {8, {INIT, UNINIT}, {START, STOP, UNINIT}},
    };
    for (const auto& entry : aCase) {
        ScriptedModule module;
        for (const Step& step : entry.vecWay) {
            ASSERT_EQ(RET_SUCCESS, (module.*step.pStep)());
        }
        ASSERT_EQ(entry.nStatus, module.getStatus());
        (void)module.takeCalls();
        for (const Step& step : entry.vecRefused) {
            LogCapture log;
            expectRefused((module.*step.pStep)(), log, step.pName, entry.nStatus);
            EXPECT_EQ("", module.takeCalls());
            EXPECT_EQ(entry.nStatus, module.getStatus());
        }
    }
}

TEST(IModule, FailedStepIsReturnedAndLeavesTheStatus)
{
    ScriptedModule module;
    module.m_eResult = RET_AGAIN;
    EXPECT_EQ(RET_AGAIN, module.init());
    EXPECT_EQ(0, module.getStatus());

    module.m_eResult = RET_SUCCESS;
    ASSERT_EQ(RET_SUCCESS, module.init());
    module.m_eResult = RET_TIMEOUT;
    EXPECT_EQ(RET_TIMEOUT, module.start());
    EXPECT_EQ(RET_TIMEOUT, module.uninit());
    EXPECT_EQ(1, module.getStatus());

    module.m_eResult = RET_SUCCESS;
    ASSERT_EQ(RET_SUCCESS, module.start());
    module.m_eResult = RET_FAILED;
    EXPECT_EQ(RET_FAILED, module.stop());
    EXPECT_EQ(2, module.getStatus());
}

TEST(IModule, EveryModuleSeesCommandsFromItsConstructionToItsDestruction)
{
    ScriptedModule first;
    {
        ScriptedModule second;
        publishCommand("one", "word");
        EXPECT_EQ("one ", second.takeCalls());
    }
    publishCommand("two", "words");

    EXPECT_EQ("one two ", first.takeCalls());
}

TEST(IModule, ModulesThatAreGoneHaveLeftTheBus)
{
    const auto liveAndDie = [] { const ScriptedModule module; };
    liveAndDie();
    const size_t uBefore = allocatedBytes();

    for (int i = 0; i < 100; ++i) {
        liveAndDie();
    }

    EXPECT_GT(uBefore + 1000, allocatedBytes()); // a subscription alone has more than ten bytes
}

TEST(IModule, DefaultHandlerDoesNothing)
{
    ScriptedModule module;

    EXPECT_EQ(0, module.IModule::onDebugCmd(nullptr));
}
