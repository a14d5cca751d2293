// Changes what the camera's driver answers, where the virtual camera has no command for it.
#pragma once

#include <functional>

/**
 * For its life every successful ioctl(2) of the code under test runs through the function, with the
 * request and its record. For programs linked with --wrap=ioctl; one object at a time, made and
 * destroyed while nobody asks the driver.
 */
class DriverAnswer
{
public:
    using Change = std::function<void(unsigned long ulRequest, void* pRecord)>;

    explicit DriverAnswer(const Change& change);
    DriverAnswer(const DriverAnswer&) = delete;
    DriverAnswer& operator=(const DriverAnswer&) = delete;
    ~DriverAnswer();
};
