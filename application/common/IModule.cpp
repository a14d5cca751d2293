// The base of the system's modules: their status and the guarded steps of their life.
#include "IModule.h"

#include "DebugCmdEvent.h"
#include "EventBus.h"
#include "Log.h"

static const char* const SOURCE_NAME = "application/common/include/IModule";

IModule::IModule()
{
    EventBus<DebugCmdEvent>::subscribe(this, &IModule::onDebugCmd);
}

IModule::~IModule()
{
    EventBus<DebugCmdEvent>::unsubscribe(this, &IModule::onDebugCmd);
}

int IModule::onDebugCmd(Event* pEvent)
{
    (void)pEvent;
    return 0;
}

RET_E IModule::init()
{
    return takeStep(__func__, MODULE_STATUS_NONE, MODULE_STATUS_UNINITED, &IModule::initModule,
                    MODULE_STATUS_INITED);
}

RET_E IModule::start()
{
    return takeStep(__func__, MODULE_STATUS_INITED, MODULE_STATUS_STOPPED, &IModule::startModule,
                    MODULE_STATUS_RUNNING);
}

RET_E IModule::stop()
{
    return takeStep(__func__, MODULE_STATUS_RUNNING, MODULE_STATUS_RUNNING, &IModule::stopModule,
                    MODULE_STATUS_STOPPED);
}

RET_E IModule::uninit()
{
    return takeStep(__func__, MODULE_STATUS_STOPPED, MODULE_STATUS_INITED, &IModule::uninitModule,
                    MODULE_STATUS_UNINITED);
}

RET_E IModule::takeStep(const char* pName, MODULE_STATUS_E eFrom, MODULE_STATUS_E eOrFrom,
                        RET_E (IModule::*pStep)(), MODULE_STATUS_E eTo)
{
    if (eFrom != m_nStatus && eOrFrom != m_nStatus) {
        LOG_AS(pName, 7, "Current status is %d \n", m_nStatus);
        return RET_FAILED;
    }
    const RET_E eRet = (this->*pStep)();
    if (RET_SUCCESS == eRet) {
        m_nStatus = eTo;
    }
    return eRet;
}
