// The motion controller's serial port: which node it is, how it is opened and reset.
#include "ControllerPort.h"

#include <array>
#include <cstdio>
#include <cstring>

#include "Time.h"

ControllerPort& ControllerPort::getInstance()
{
    static ControllerPort s_instance;
    return s_instance;
}

RET_E ControllerPort::open()
{
    m_uart.close();
    while (1 != m_uart.open(findNode())) {
        sleepFor(Time(1, 0));
    }
    return (1 == m_uart.setParam(115200, 8, 1, 0)) ? RET_SUCCESS : RET_FAILED;
}

/** The first serial node of a USB controller; empty without one. */
std::string ControllerPort::findNode()
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
