// The line that resets the motion controller: GPIO 106, through sysfs.
#include "ResetLine.h"

#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

#include "Time.h"

static const char* const RESET_GPIO = "106";

/** For pin files, whose results are ignored. */
static void store(int nFd, const char* pText, size_t uLength)
{
    const ssize_t nIgnored = write(nFd, pText, uLength);
    (void)nIgnored;
}

std::string ResetLine::getPinFile(const char* pName)
{
    return std::string("/sys/class/gpio/gpio") + RESET_GPIO + "/" + pName;
}

void ResetLine::makeOutput()
{
    store(open("/sys/class/gpio/export", O_WRONLY | O_CLOEXEC), RESET_GPIO, 3);
    store(open(getPinFile("direction").c_str(), O_WRONLY | O_CLOEXEC), "out", 3);
    store(open(getPinFile("value").c_str(), O_WRONLY | O_CLOEXEC), "1", 2); // with its zero byte
    puts("you are reset the STM32");                                        // sic
}

void ResetLine::pulse()
{
    makeOutput();
    const int nFd = open(getPinFile("value").c_str(), O_WRONLY | O_CLOEXEC);
    store(nFd, "0", 2); // with its zero byte
    sleepFor(Time(0, 500000));
    store(nFd, "1", 2);
}
