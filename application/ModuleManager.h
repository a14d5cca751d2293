// Brings the modules up and down, waits for the quit request, and holds the debug console.
#pragma once

#include <atomic>
#include <list>
#include <memory>

#include "IModule.h"
#include "Thread.h"

/**
 * The frame of the service. A module by type, but main calls its steps directly, so that its own
 * status never changes.
 *
 * Deliberate: the debug console is built in full but dormant; nothing here starts its thread.
 */
class ModuleManager : public IModule
{
public:
    static ModuleManager& getInstance();
    ~ModuleManager() override;

    /** These four do nothing and return RET_SUCCESS. */
    RET_E initModule() override;
    RET_E startModule() override;
    RET_E stopModule() override;
    RET_E uninitModule() override;

    /** "SystemManager shell" runs an interactive shell on the console. @return 0 */
    int onDebugCmd(Event* pEvent) override;

    /**
     * Bring the modules up in order. Main thread.
     * @return RET_SUCCESS, or the first failure after the modules already up were brought down
     */
    RET_E moduleInitialize();

    /** Block until a SystemNeedQuitEvent was published; looks once a second. @return RET_SUCCESS */
    RET_E systemLoop(char** argv);

    /** Bring the running modules down in reverse order. @return the first failure, which ends it */
    RET_E moduleUnInitialize();

    /**
     * One pass of the debug console: read a line from standard input and act on it.
     * Body of the "tty_debug" thread.
     * @return 0 continue, 1 quit requested, -1 standard input failed (logged, level 2)
     */
    int debugCmdThread();

    /** The console's thread; the shipped service never starts it. */
    Thread& getDebugThread()
    {
        return *m_pDebugThread;
    }

private:
    ModuleManager();

    template <class T> RET_E initModule();
    int onSystemNeedQuit(Event* pEvent);

    std::atomic<bool> m_bQuit{false}; // set by any thread, polled by the main thread
    std::unique_ptr<Thread> m_pDebugThread;
    std::list<IModule*> m_listModule; // in the order of coming up; main thread only
};
