// The controller object beside the print service; it shares the serial port and does nothing yet.
#include "ElectricController.h"

ElectricController& ElectricController::getInstance()
{
    static ElectricController s_instance;
    return s_instance;
}

void ElectricController::setUart(UART* pUart)
{
    m_pUart = pUart;
}

int ElectricController::reservedFirst(int32_t /*s32Value*/)
{
    return 0;
}

int ElectricController::reservedSecond(int32_t /*s32Value*/)
{
    return 0;
}
