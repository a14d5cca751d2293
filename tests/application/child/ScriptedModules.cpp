// The two modules, scripted: each step prints itself and returns the result set for it.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CommucationModule.h"
#include "DebugCmdEvent.h"
#include "EventBus.h"
#include "ModuleManager.h"
#include "SystemModule.h"
#include "SystemNeedQuitEvent.h"

namespace {

/** The result that the environment has for a step, e.g. SystemModule_start=5. */
RET_E step(const char* pModule, const char* pStep)
{
    printf("%s %s\n", pModule, pStep);
    const char* pResult = getenv((std::string(pModule) + "_" + pStep).c_str());
    return static_cast<RET_E>((nullptr == pResult) ? 0 : atoi(pResult));
}

/** A command that no console would publish, as "COUNT FIRST SECOND". */
void publishCommand(const char* pCommand)
{
    char aacWord[10][128] = {};
    const char* apWord[10];
    for (int i = 0; i < 10; ++i) {
        apWord[i] = aacWord[i];
    }
    int nCount = 0;
    (void)sscanf(pCommand, "%d %127s %127s", &nCount, aacWord[0], aacWord[1]);
    DebugCmdEvent event(&nCount, apWord);
    EventBus<DebugCmdEvent>::publish(event);
}

void made(const char* pModule)
{
    if (nullptr != getenv("MAKING")) {
        printf("%s made\n", pModule);
    }
}

} // namespace

SystemModule& SystemModule::getInstance()
{
    static SystemModule s_instance;
    return s_instance;
}

SystemModule::SystemModule()
{
    made("SystemModule");
}

SystemModule::~SystemModule() = default;

RET_E SystemModule::initModule()
{
    return step("SystemModule", "init");
}

RET_E SystemModule::startModule()
{
    return step("SystemModule", "start");
}

RET_E SystemModule::stopModule()
{
    return step("SystemModule", "stop");
}

RET_E SystemModule::uninitModule()
{
    return step("SystemModule", "uninit");
}

int SystemModule::onDebugCmd(Event* pEvent)
{
    const auto& event = dynamic_cast<DebugCmdEvent&>(*pEvent);
    printf("%d words", *event.m_pCount);
    for (int i = 0; i < 10; ++i) {
        printf(" <%s>", event.m_ppWords[i]);
    }
    printf("\n");
    return 0;
}

CommucationModule& CommucationModule::getInstance()
{
    static CommucationModule s_instance;
    return s_instance;
}

CommucationModule::CommucationModule()
{
    made("CommucationModule");
}

CommucationModule::~CommucationModule() = default;

RET_E CommucationModule::initModule()
{
    return step("CommucationModule", "init");
}

/** The last step of the start: what happens from here on is the script's. */
RET_E CommucationModule::startModule()
{
    if (nullptr != getenv("CONSOLE")) {
        (void)ModuleManager::getInstance().getDebugThread().start();
    }
    const char* pCommand = getenv("COMMAND");
    if (nullptr != pCommand) {
        publishCommand(pCommand);
    }
    if (nullptr != getenv("QUIT")) {
        SystemNeedQuitEvent event;
        EventBus<SystemNeedQuitEvent>::publish(event);
    }
    return step("CommucationModule", "start");
}

RET_E CommucationModule::stopModule()
{
    return step("CommucationModule", "stop");
}

RET_E CommucationModule::uninitModule()
{
    return step("CommucationModule", "uninit");
}

int CommucationModule::onDebugCmd(Event*)
{
    return 0;
}
