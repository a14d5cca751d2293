// Moments as the operator's interface tells them.
#pragma once

#include <string>

/** Now, as RFC 3339 has it, in UTC and milliseconds. */
std::string getWallTime();
