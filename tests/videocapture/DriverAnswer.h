// Changes what the camera's driver answers, and shows what it is asked, where the virtual camera
// has no command for it.
#pragma once

#include <functional>

/**
 * For its life every successful ioctl(2) of the code under test runs through the function, with the
 * request and its record. For programs linked with --wrap=ioctl; one object at a time; any
 * thread may ask the driver meanwhile, and its end waits for the function.
 */
class DriverAnswer
{
public:
    using Change = std::function<void(unsigned long ulRequest, void* pRecord)>;

    /** @param look  called before the driver gets the record, as the code has filled it in */
    explicit DriverAnswer(const Change& change, const Change& look = nullptr);
    DriverAnswer(const DriverAnswer&) = delete;
    DriverAnswer& operator=(const DriverAnswer&) = delete;
    ~DriverAnswer();
};
