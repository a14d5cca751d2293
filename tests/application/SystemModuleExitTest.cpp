// The end of the process with the controller's port in use, in several orders of first use.
#include <string>

#include <gtest/gtest.h>

#include "Arm.h"
#include "AtExitOrder.h"
#include "ControllerPort.h"
#include "ElectricController.h"
#include "EventBus.h"
#include "Eventually.h"
#include "IdlePrintEvent.h"
#include "Log.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "PrintService.h"
#include "StatusReportEvent.h"
#include "SystemModule.h"

namespace {

/** What is left to the caller is the program's own end, with the job's thread still at work. */
void leaveInMidJob(Arm& arm)
{
    std::string strJob;
    for (int i = 0; i < 5000; ++i) {
        strJob += "G1 X1\n";
    }
    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());
    EXPECT_EQ(0, arm.m_module.savePrintJob(strJob.data(), static_cast<int>(strJob.size())));
    EXPECT_EQ(0, arm.m_module.startPrintJob());
    EXPECT_TRUE(eventually([&arm] { return 100 < arm.m_controller.readTexts("rx").size(); }));
}

} // namespace

TEST(SystemModuleExit, ProcessMayEndInTheMiddleOfAJob)
{
    Arm arm({"--boot-ms", "10"});

    leaveInMidJob(arm);
}

TEST(SystemModuleExit, ProcessMayEndInMidJobWhenThePrintServiceWasUsedFirst)
{
    (void)PrintService::getInstance();
    Arm arm({"--boot-ms", "10"});

    leaveInMidJob(arm);
}

TEST(SystemModuleExit, ProcessMayEndInMidJobWhenTheControllerObjectWasUsedFirst)
{
    (void)ElectricController::getInstance();
    (void)PrintService::getInstance();
    Arm arm({"--boot-ms", "10"});

    leaveInMidJob(arm);
}

TEST(SystemModuleExit, ProcessMayEndInMidJobWhenTheEventsWereUsedLast)
{
    Arm arm({"--boot-ms", "10"});
    leaveInMidJob(arm);

    EventBus<StatusReportEvent>::getInstance();
    EventBus<IdlePrintEvent>::getInstance();
}

TEST(SystemModuleExit, PortOutlivesPrintServiceThatWasUsedBeforeTheModule)
{
    const void* const pService = &PrintService::getInstance();
    const void* const pModule = &SystemModule::getInstance();
    const void* const pPort = &ControllerPort::getInstance();

    EXPECT_LT(placeAtExit(pService), placeAtExit(pModule)); // the module goes first
    EXPECT_LT(placeAtExit(pPort), placeAtExit(pService));   // the port last
}

// The first to use any of them is the service: its thread does until it is gone.
TEST(SystemModuleExit, EventsOutliveThePrintServiceThatPublishesThem)
{
    const void* const pService = &PrintService::getInstance();

    EXPECT_TRUE(
        outlive({&Log::getInstance(), &EventBus<StatusReportEvent>::getInstance(),
                 &EventBus<IdlePrintEvent>::getInstance(), &EventBus<MoveLaserEvent>::getInstance(),
                 &EventBus<MeasureEvent>::getInstance()},
                pService));
}

TEST(SystemModuleExit, PortOutlivesModuleThatWasUsedBeforeThePrintService)
{
    const void* const pModule = &SystemModule::getInstance();
    const void* const pService = &PrintService::getInstance();
    const void* const pPort = &ControllerPort::getInstance();

    EXPECT_LT(placeAtExit(pModule), placeAtExit(pService));
    EXPECT_LT(placeAtExit(pPort), placeAtExit(pModule));
}
