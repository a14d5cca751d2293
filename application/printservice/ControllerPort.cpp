// The motion controller's serial port: which node it is, how it is opened and reset.
#include "ControllerPort.h"

#include <array>
#include <cstdio>

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
    std::string strNode;
    FILE* const pPipe = popen("ls /dev/ttyACM*", "r");
    if (nullptr != pPipe) {
        std::array<char, 80> acLine{};
        if (nullptr != fgets(acLine.data(), static_cast<int>(acLine.size()), pPipe)) {
            strNode = acLine.data();
            strNode.pop_back(); // the line end
        }
    }
    printf("[%s]", strNode.c_str());
    if (nullptr != pPipe) {
        pclose(pPipe);
    }
    return strNode;
}
