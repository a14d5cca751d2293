// The facade's way to the arm: measuring, the controller's port, and the print service.
//
// The camera service of the station has another one in its place.
#include "ControllerPort.h"
#include "ElectricController.h"
#include "PrintService.h"
#include "SystemModule.h"
#include "VideoCapturer.h"
#include "VideoProcessor.h"

SystemModule::SystemModule()
{
    // These outlive the module, whose clients use them through it until it is gone.
    (void)ControllerPort::getInstance();
    (void)VideoCapturer::getInstance();
    (void)VideoProcessor::getInstance();
}

RET_E SystemModule::measure(float* pResult)
{
    return VideoProcessor::getInstance().measure(pResult);
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
