// Changes what the camera's driver answers, and shows what it is asked, where the virtual camera
// has no command for it.
#include "DriverAnswer.h"

#include <cstdarg>
#include <mutex>

// Guards the two below and their calls: a capture thread may ask the driver while a test ends.
static std::recursive_mutex g_mtxAnswer;
static DriverAnswer::Change g_change;
static DriverAnswer::Change g_look;

static void callIfSet(const DriverAnswer::Change& function, unsigned long ulRequest, void* pRecord)
{
    const std::lock_guard<std::recursive_mutex> lock(g_mtxAnswer);
    if (nullptr != function) {
        function(ulRequest, pRecord);
    }
}

DriverAnswer::DriverAnswer(const Change& change, const Change& look)
{
    const std::lock_guard<std::recursive_mutex> lock(g_mtxAnswer);
    g_change = change;
    g_look = look;
}

DriverAnswer::~DriverAnswer()
{
    const std::lock_guard<std::recursive_mutex> lock(g_mtxAnswer);
    g_change = nullptr;
    g_look = nullptr;
}

// The linker gives calls of ioctl to the first, and the second's calls to ioctl.
extern "C" int __wrap_ioctl(int nFd, unsigned long ulRequest, ...);
extern "C" int __real_ioctl(int nFd, unsigned long ulRequest, ...);

int __wrap_ioctl(int nFd, unsigned long ulRequest, ...)
{
    va_list arguments;
    va_start(arguments, ulRequest);
    void* pRecord = va_arg(arguments, void*);
    va_end(arguments);
    callIfSet(g_look, ulRequest, pRecord);
    const int nRet = __real_ioctl(nFd, ulRequest, pRecord);
    if (0 == nRet) {
        callIfSet(g_change, ulRequest, pRecord);
    }
    return nRet;
}
