// The module of the HTTP camera service.
#pragma once

#include "IModule.h"

/** Runs the WebCamera server, on TCP port 8329 of all addresses. Main thread. */
class CommucationModule : public IModule
{
public:
    static CommucationModule& getInstance();
    ~CommucationModule() override;

    /** Listen; no client is served yet. @return RET_FAILED (logged) e.g. when the port is in use */
    RET_E initModule() override;

    /** Start to serve. @return RET_SUCCESS, also when the reactor has no thread to start */
    RET_E startModule() override;

    /**
     * End serving; connections stay open. Waits for the reactor's pass without limit: a measurement
     * that waits for a missing camera holds it.
     * @return RET_SUCCESS
     */
    RET_E stopModule() override;

    /** Stop listening. @return RET_SUCCESS */
    RET_E uninitModule() override;

    /** The module has no commands of its own. @return 0 */
    int onDebugCmd(Event* pEvent) override;

private:
    CommucationModule();
};
