// The module for the device side, and the facade through which the HTTP service reaches it.
#include "SystemModule.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

#include "ElectricController.h"
#include "PrintService.h"
#include "Time.h"
#include "VideoCapturer.h"
#include "VideoProcessor.h"

SystemModule::SystemModule()
{
    // Both outlive the module, whose clients use them through it until it is gone.
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

/** The first serial node of a USB controller; empty without one. */
static std::string findSerialNode()
{
    std::array<char, 80> acName{};
    FILE* const pPipe = popen("ls /dev/ttyACM*", "r");
    if (nullptr != pPipe) {
        if (nullptr == fgets(acName.data(), static_cast<int>(acName.size()), pPipe)) {
            acName[0] = '\0';
        }
        const size_t uLength = strlen(acName.data());
        if (uLength > 0) {
            acName[uLength - 1] = '\0'; // the line end
        }
    }
    printf("[%s]", acName.data());
    if (nullptr != pPipe) {
        pclose(pPipe);
    }
    return acName.data();
}

RET_E SystemModule::openSerial()
{
    PrintService& printService = PrintService::getInstance();
    if (0 != printService.resetStm32()) {
        return RET_FAILED;
    }
    m_uart.close();
    while (1 != m_uart.open(findSerialNode())) {
        sleepFor(Time(1, 0));
    }
    if (1 != m_uart.setParam(115200, 8, 1, 0)) {
        return RET_FAILED;
    }
    printService.setUart(&m_uart);
    ElectricController::getInstance().setUart(&m_uart);
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
