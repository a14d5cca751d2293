// Texts that several answers of a controller with Grbl 1.1 have in common.
#pragma once

#include <string>

#include "Motion.h"

/** "1.000,2.000,3.000" */
std::string formatPoint(const Point& point);

/** "ok\r\n" for 0, else "error:N\r\n". */
std::string formatResult(int nError);

/** "ALARM:N\r\n" */
std::string formatAlarmCode(int nCode);
