// The module manager's life as main leads it, without main's log file and log server.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

namespace {

/** Made before the manager, so that it ends after it: does an event still reach what was there? */
class Latecomer
{
public:
    Latecomer()
    {
        (void)EventBus<SystemNeedQuitEvent>::getInstance(); // outlives it
    }
    Latecomer(const Latecomer&) = delete;
    Latecomer& operator=(const Latecomer&) = delete;
    ~Latecomer()
    {
        if (nullptr == m_pWatched) {
            return;
        }
        unsigned char auBefore[sizeof(ModuleManager)];
        memcpy(auBefore, m_pWatched, sizeof(auBefore));
        requestQuit(SIGUSR1);
        printf("late %s\n",
               (0 == memcmp(auBefore, m_pWatched, sizeof(auBefore))) ? "untouched" : "touched");
    }

    const void* m_pWatched = nullptr;
};

} // namespace

int main(int, char** argv)
{
    static Latecomer s_latecomer;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Log::getInstance().setLayout(LOG_LAYOUT_LEVEL | LOG_LAYOUT_FILE | LOG_LAYOUT_FUNCTION);
    (void)EventBus<SystemNeedQuitEvent>::getInstance();
    signal(SIGUSR1, &requestQuit);
    ModuleManager& manager = ModuleManager::getInstance();
    if (nullptr != getenv("LATE")) {
        s_latecomer.m_pWatched = &manager;
    }
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
