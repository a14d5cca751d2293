// Linked to main.cpp in place of the module manager: each step prints itself and returns what the
// environment tells it.
#include <cstdio>
#include <cstdlib>

#include "Log.h"
#include "ModuleManager.h"

static const char* const SOURCE_NAME = "ScriptedManager.cpp";

static RET_E step(const char* pName)
{
    printf("%s\n", pName);
    const char* const pResult = getenv(pName);
    return static_cast<RET_E>((nullptr == pResult) ? 0 : atoi(pResult));
}

ModuleManager::ModuleManager() = default;
ModuleManager::~ModuleManager() = default;

ModuleManager& ModuleManager::getInstance()
{
    static ModuleManager s_instance;
    return s_instance;
}

RET_E ModuleManager::initModule()
{
    return step("initModule");
}

RET_E ModuleManager::startModule()
{
    return step("startModule");
}

RET_E ModuleManager::stopModule()
{
    return step("stopModule");
}

RET_E ModuleManager::uninitModule()
{
    return step("uninitModule");
}

int ModuleManager::onDebugCmd(Event* pEvent)
{
    return IModule::onDebugCmd(pEvent);
}

RET_E ModuleManager::moduleInitialize()
{
    return step("moduleInitialize");
}

/** Logs as standard input says: "LEVEL COUNT" is so many lines, a thousand bytes of text each. */
RET_E ModuleManager::systemLoop(char** argv)
{
    char acLine[32];
    while (nullptr != fgets(acLine, sizeof(acLine), stdin)) {
        unsigned uLevel = 0;
        unsigned uCount = 0;
        if (2 != sscanf(acLine, "%u %u", &uLevel, &uCount)) {
            continue;
        }
        for (unsigned i = 0; i < uCount; ++i) {
            LOG(uLevel, "level %u%0993d\n", uLevel, 0);
        }
        printf("logged\n");
    }
    printf("%s ", (nullptr == argv) ? "no vector" : argv[1]);
    return step("systemLoop");
}

RET_E ModuleManager::moduleUnInitialize()
{
    return step("moduleUnInitialize");
}
