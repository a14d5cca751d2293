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
    if (MODULE_STATUS_NONE != m_nStatus && MODULE_STATUS_UNINITED != m_nStatus) {
        LOG(7, "Current status is %d \n", m_nStatus);
        return RET_FAILED;
    }
    const RET_E eRet = initModule();
    if (RET_SUCCESS == eRet) {
        m_nStatus = MODULE_STATUS_INITED;
    }
    return eRet;
}

RET_E IModule::start()
{
    if (MODULE_STATUS_INITED != m_nStatus && MODULE_STATUS_STOPPED != m_nStatus) {
        LOG(7, "Current status is %d \n", m_nStatus);
        return RET_FAILED;
    }
    const RET_E eRet = startModule();
    if (RET_SUCCESS == eRet) {
        m_nStatus = MODULE_STATUS_RUNNING;
    }
    return eRet;
}

RET_E IModule::stop()
{
    if (MODULE_STATUS_RUNNING != m_nStatus) {
        LOG(7, "Current status is %d \n", m_nStatus);
        return RET_FAILED;
    }
    const RET_E eRet = stopModule();
    if (RET_SUCCESS == eRet) {
        m_nStatus = MODULE_STATUS_STOPPED;
    }
    return eRet;
}

RET_E IModule::uninit()
{
    if (MODULE_STATUS_STOPPED != m_nStatus && MODULE_STATUS_INITED != m_nStatus) {
        LOG(7, "Current status is %d \n", m_nStatus);
        return RET_FAILED;
    }
    const RET_E eRet = uninitModule();
    if (RET_SUCCESS == eRet) {
        m_nStatus = MODULE_STATUS_UNINITED;
    }
    return eRet;
}
