// The module manager's life as main leads it, without main's log file and log server.
#include <csignal>
#include <cstdio>
#include <thread>

#include "EventBus.h"
#include "Log.h"
#include "ModuleManager.h"
#include "SystemNeedQuitEvent.h"

static void requestQuit(int)
{
    SystemNeedQuitEvent event; // publishing takes no lock: fine in a signal handler
    EventBus<SystemNeedQuitEvent>::publish(event);
}

int main(int, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Log::getInstance().setLayout(LOG_LAYOUT_LEVEL | LOG_LAYOUT_FILE | LOG_LAYOUT_FUNCTION);
    (void)EventBus<SystemNeedQuitEvent>::getInstance();
    signal(SIGUSR1, &requestQuit);
    ModuleManager& manager = ModuleManager::getInstance();
    const RET_E eRet = manager.moduleInitialize();
    printf("up %d\n", eRet);
    if (RET_SUCCESS != eRet) {
        return eRet;
    }
    printf("loop %d\n", manager.systemLoop(argv));
    printf("down %d\n", manager.moduleUnInitialize());
    printf("status %d\n", manager.getStatus());
    return 0;
}
