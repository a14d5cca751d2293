// The module for the device side, and the facade through which the HTTP service reaches it: its
// life, and the camera's pictures.
#include "SystemModule.h"

#include "VideoCapturer.h"
#include "VideoProcessor.h"

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

void SystemModule::undistort(PVENC_FRAME_T& in, PVENC_FRAME_T& out)
{
    VideoProcessor::getInstance().undistort(in, out);
}
