// The camera service's way to the devices, in the station: a measurement only where it is allowed.
//
// Linked in place of SystemModule.cpp. What that does with the controller the station does by
// itself, behind the guard.
#include "ArmUse.h"
#include "SystemModule.h"
#include "VideoCapturer.h"
#include "VideoProcessor.h"

SystemModule::SystemModule()
{
    // These outlive the module, whose clients use them through it until it is gone.
    (void)VideoCapturer::getInstance();
    (void)VideoProcessor::getInstance();
}

SystemModule::~SystemModule() = default;

SystemModule& SystemModule::getInstance()
{
    static SystemModule s_instance;
    return s_instance;
}

RET_E SystemModule::initModule()
{
    return VideoCapturer::getInstance().init();
}

RET_E SystemModule::startModule()
{
    return VideoCapturer::getInstance().start();
}

RET_E SystemModule::stopModule()
{
    return VideoCapturer::getInstance().stop();
}

RET_E SystemModule::uninitModule()
{
    return VideoCapturer::getInstance().uninit();
}

int SystemModule::onDebugCmd(Event* pEvent)
{
    (void)pEvent;
    return 0;
}

RET_E SystemModule::registerConsumer(IConsumer* pConsumer)
{
    return VideoCapturer::getInstance().registerConsumer(pConsumer);
}

RET_E SystemModule::cancelConsumer(IConsumer* pConsumer)
{
    return VideoCapturer::getInstance().cancelConsumer(pConsumer);
}

RET_E SystemModule::measure(float* pResult)
{
    *pResult = 0; // what is answered without a plug-in
    const ArmUse& use = ArmUse::getInstance();
    if (!use.isOpen() || !use.isReady()) {
        return RET_FAILED;
    }
    const ArmUser user(ARM_MEASURE);
    return user.hasBegun() ? VideoProcessor::getInstance().measure(pResult) : RET_FAILED;
}

void SystemModule::undistort(PVENC_FRAME_T& in, PVENC_FRAME_T& out)
{
    VideoProcessor::getInstance().undistort(in, out);
}
