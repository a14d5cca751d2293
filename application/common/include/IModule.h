// The base of the system's modules: their status and the guarded steps of their life.
#pragma once

#include <cstdint>

#include "Event.h"
#include "RetE.h"

enum MODULE_STATUS_E : int32_t
{
    MODULE_STATUS_NONE = 0,    // constructed, never initialised
    MODULE_STATUS_INITED = 1,  // initModule succeeded
    MODULE_STATUS_RUNNING = 2, // startModule succeeded
    MODULE_STATUS_STOPPED = 4, // stopModule succeeded
    MODULE_STATUS_UNINITED = 8 // uninitModule succeeded
};

/**
 * Every module sees the debug console's commands from its construction to its destruction.
 *
 * The guarded steps init, start, stop and uninit are the main thread's. Each checks the status,
 * calls the module's own step and, only if that succeeds, takes the new status. A refused step is
 * logged (level 7) and returns RET_FAILED without a call.
 */
class IModule
{
public:
    IModule();
    IModule(const IModule&) = delete;
    IModule& operator=(const IModule&) = delete;
    virtual ~IModule();

    virtual RET_E initModule() = 0;
    virtual RET_E startModule() = 0;
    virtual RET_E stopModule() = 0;
    virtual RET_E uninitModule() = 0;

    /** A console command (a DebugCmdEvent), on the console's thread. @return 0 */
    virtual int onDebugCmd(Event* pEvent);

    /** Allowed when never initialised or uninitialised. */
    RET_E init();
    /** Allowed when initialised or stopped. */
    RET_E start();
    /** Allowed when running. */
    RET_E stop();
    /** Allowed when stopped or initialised. */
    RET_E uninit();

    int32_t getStatus() const
    {
        return m_nStatus;
    }

private:
    RET_E takeStep(const char* pName, MODULE_STATUS_E eFrom, MODULE_STATUS_E eOrFrom,
                   RET_E (IModule::*pStep)(), MODULE_STATUS_E eTo);

    int32_t m_nStatus = MODULE_STATUS_NONE; // a MODULE_STATUS_E
};
