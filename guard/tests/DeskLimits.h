// The limits that the tests and fuzz targets of the interlock go by.
#pragma once

#include "GcodeCheck.h"

/** The box is 200 mm wide, feed at most 6000 mm/min, power at most 1000. */
inline GuardLimits deskLimits()
{
    GuardLimits limits;
    limits.minimum = {-100, -100, -100};
    limits.maximum = {100, 100, 100};
    limits.dMaxFeed = 6000;
    limits.dMaxPower = 1000;
    limits.dAcceleration = 500;
    return limits;
}
