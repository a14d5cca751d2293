// The module for the device side, and the facade through which the HTTP service reaches it.
#include "SystemModule.h"

#include "ControllerPort.h"
#include "ElectricController.h"
#include "PrintService.h"
#include "VideoCapturer.h"
#include "VideoProcessor.h"

SystemModule::SystemModule()
{
    // These outlive the module, whose clients use them through it until it is gone.
    (void)ControllerPort::getInstance();
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
    return VideoProcessor::getInstance().measure(pResult);
}

void SystemModule::undistort(PVENC_FRAME_T& in, PVENC_FRAME_T& out)
{
    VideoProcessor::getInstance().undistort(in, out);
}

RET_E SystemModule::openSerial()
{
    PrintService& printService = PrintService::getInstance();
    if (0 != printService.resetStm32()) {
        return RET_FAILED;
    }
    ControllerPort& port = ControllerPort::getInstance();
    if (RET_SUCCESS != port.open()) {
        return RET_FAILED;
    }
    printService.setUart(&port.getUart());
    ElectricController::getInstance().setUart(&port.getUart());
    return RET_SUCCESS;
}

int SystemModule::sendPrintCommand(const char* pCommand, int nLength)
{
    return PrintService::getInstance().printSingleCmd(pCommand, nLength);
}

int SystemModule::savePrintJob(const void* pData, int nLength)
{
    return PrintService::getInstance().saveGcode(pData, nLength);
}

int SystemModule::updateControllerFirmware(const void* pData, int nLength)
{
    return PrintService::getInstance().updateFirmware(pData, nLength);
}

int SystemModule::startPrintJob()
{
    return PrintService::getInstance().startPrint();
}

int SystemModule::pausePrintJob()
{
    return PrintService::getInstance().pausePrint();
}

int SystemModule::stopPrintJob()
{
    return PrintService::getInstance().stopPrint();
}

int SystemModule::getPrintProgress(float* pProgress)
{
    return PrintService::getInstance().getProgress(pProgress);
}

int SystemModule::callControllerReservedFirst()
{
    return ElectricController::getInstance().reservedFirst(0);
}

int SystemModule::callControllerReservedSecond()
{
    return ElectricController::getInstance().reservedSecond(0);
}
