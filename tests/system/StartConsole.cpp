// Linked to main.cpp beside the service: the same program with its debug console running.
#include "ModuleManager.h"

namespace {

struct StartConsole
{
    StartConsole()
    {
        ModuleManager::getInstance().getDebugThread().start();
    }
};

const StartConsole START_CONSOLE;

} // namespace
