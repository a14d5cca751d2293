// The module of the HTTP camera service.
#include "CommucationModule.h"

#include "WebCamera.h"

static const uint16_t PORT = 8329;
static const int SOCKET_BUFFER = 35840; // bytes, either way

namespace {

RET_E toRet(int nResult)
{
    return (0 == nResult) ? RET_SUCCESS : RET_FAILED;
}

} // namespace

CommucationModule::CommucationModule() = default;

CommucationModule::~CommucationModule() = default;

CommucationModule& CommucationModule::getInstance()
{
    static CommucationModule s_instance;
    return s_instance;
}

RET_E CommucationModule::initModule()
{
    return toRet(WebCamera::getInstance().init(PORT, nullptr, SOCKET_BUFFER, SOCKET_BUFFER));
}

RET_E CommucationModule::startModule()
{
    return toRet(WebCamera::getInstance().start());
}

RET_E CommucationModule::stopModule()
{
    return toRet(WebCamera::getInstance().stop());
}

RET_E CommucationModule::uninitModule()
{
    return toRet(WebCamera::getInstance().uninit());
}

int CommucationModule::onDebugCmd(Event* pEvent)
{
    (void)pEvent;
    return 0;
}
