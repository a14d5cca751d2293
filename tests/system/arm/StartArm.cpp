// Linked to main.cpp beside the service: the same program with the laser arm's serial port open.
#include "SystemModule.h"

namespace {

class StartArm
{
public:
    StartArm()
    {
        (void)SystemModule::getInstance().openSerial(); // a failure shows on the wire
    }
};

const StartArm START_ARM;

} // namespace
