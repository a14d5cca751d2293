// What is modal in Grbl 1.1: it holds from the line that sets it.
#pragma once

#include <string>

#include "GrblPlanner.h"
#include "GrblWords.h"

/** Lengths are in millimetres whatever the units of the lines. New, it is what a reset leaves. */
struct GrblModes
{
    int nMotion = 0;           // G0 to G3; 80
    int nPlane = 17;           // G17 to G19
    bool bInch = false;        // G20
    bool bRelative = false;    // G91
    bool bInverseTime = false; // G93: dFeed is one over the minutes that the line takes
    int nSystem = 0;           // 0 is G54, 5 is G59
    SPINDLE_E eSpindle = SPINDLE_OFF;
    bool bCoolant = false;
    double dFeed = 0;  // mm/min
    double dPower = 0; // S word
    int nTool = 0;

    /**
     * Take the modes from a line, which keeps its words.
     * @return 0 or the code of "error:N"; the modes are then unusable
     */
    int apply(const GrblWords& words);

    /** Millimetres of a length 1 in a line. */
    double getUnit() const;

    /** Whether the motion is one that the laser is on in. */
    bool isCutting() const
    {
        return nMotion >= 1 && nMotion <= 3;
    }

    /** What M2 and M30 leave. */
    void endProgram();

    /** "[GC:...]\r\n", the answer to "$G" without its "ok"; the feed in the units of the lines. */
    std::string format() const;
};
