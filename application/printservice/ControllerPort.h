// The motion controller's serial port: which node it is, how it is opened and reset.
#pragma once

#include <string>

#include "ResetLine.h"
#include "RetE.h"
#include "UART.h"

/**
 * Owns the port that the print service and the controller object borrow.
 *
 * Created on first use; an object that uses the port in a thread or its destructor obtains it in
 * its constructor, so that the port outlives it whatever was used first.
 */
class ControllerPort
{
public:
    static ControllerPort& getInstance();
    ControllerPort(const ControllerPort&) = delete;
    ControllerPort& operator=(const ControllerPort&) = delete;

    /** The line that resets the controller. */
    ResetLine& getResetLine()
    {
        return m_resetLine;
    }

    /** Closed before open(). */
    UART& getUart()
    {
        return m_uart;
    }

    /**
     * Close the port and open it on the first node that "ls /dev/ttyACM*" lists: 115200 baud,
     * 8 data bits, 1 stop bit, no parity. Each look-up is reported on standard output.
     *
     * Blocks until a port opens, however long; looks once a second. One caller at a time, and not
     * while anyone works on the port.
     * @return RET_FAILED when the line parameters are refused; the port then stays open
     */
    RET_E open();

private:
    ControllerPort() = default;

    static std::string findNode();

    ResetLine m_resetLine;
    UART m_uart;
};
