// The controller object beside the print service; it shares the serial port and does nothing yet.
#pragma once

#include <atomic>
#include <cstdint>

class UART;

/** Made on first use; any thread. */
class ElectricController
{
public:
    static ElectricController& getInstance();
    ElectricController(const ElectricController&) = delete;
    ElectricController& operator=(const ElectricController&) = delete;
    virtual ~ElectricController() = default;

    /** Borrows the port, which ControllerPort owns. */
    void setUart(UART* pUart);

    /** Deliberate: both operations have no effect. @return 0 */
    int reservedFirst(int32_t s32Value);
    int reservedSecond(int32_t s32Value);

private:
    ElectricController() = default;

    std::atomic<UART*> m_pUart{nullptr};
};
