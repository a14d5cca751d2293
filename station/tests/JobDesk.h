// A job check on a test's desk.
#pragma once

#include <string>

#include "GrblLanguage.h"
#include "JobCheck.h"
#include "KestrelLanguage.h"

/** 200 mm wide, 100 mm deep, feed at most 6000 mm/min, power at most 1000. */
inline GuardLimits jobLimits()
{
    GuardLimits limits;
    limits.minimum = {0, 0, -10};
    limits.maximum = {200, 100, 10};
    limits.dMaxFeed = 6000;
    limits.dMaxPower = 1000;
    limits.dAcceleration = 500;
    limits.dRapidFeed = 6000;
    return limits;
}

inline JobReport checkGrbl(const std::string& strJob, std::string* pMended = nullptr)
{
    static const GrblLanguage GRBL;
    return JobCheck(jobLimits(), GRBL).check(strJob, pMended);
}

inline JobReport checkKestrel(const std::string& strJob, std::string* pMended = nullptr)
{
    static const KestrelLanguage KESTREL;
    return JobCheck(jobLimits(), KESTREL).check(strJob, pMended);
}
