// The camera service's way to the arm, in the station: a measurement only where it is allowed.
//
// Linked in place of SystemModuleArm.cpp. What that does with the controller the station does by
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
