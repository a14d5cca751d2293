// Texts that several answers of a controller with Grbl 1.1 have in common.
#include "GrblText.h"

#include <cstdio>

std::string formatPoint(const Point& point)
{
    char acText[80] = {0};
    snprintf(acText, sizeof(acText), "%.3f,%.3f,%.3f", point[0], point[1], point[2]);
    return acText;
}

std::string formatResult(int nError)
{
    return (0 == nError) ? "ok\r\n" : "error:" + std::to_string(nError) + "\r\n";
}

std::string formatAlarmCode(int nCode)
{
    return "ALARM:" + std::to_string(nCode) + "\r\n";
}
