// What a line of Grbl 1.1 makes the machine do, step by step.
#pragma once

#include <string>

#include "GrblPlanner.h"

enum GRBL_ACTION_E
{
    GRBL_MOVE,    // block; waits for room in the planner
    GRBL_SPINDLE, // block.eSpindle and dPower, once all motion has ended
    GRBL_COOLANT, // bOn, the same
    GRBL_DWELL,   // dSeconds, once all motion has ended
    GRBL_SYNC,    // wait for the end of all motion
    GRBL_PAUSE,   // M0: the same, then hold
    GRBL_HOME,
    GRBL_SAY,    // strText
    GRBL_RESULT, // strText, the answer that ends the line
    GRBL_LIMITS  // block.target has to be within the soft limits
};

struct GrblAction
{
    GRBL_ACTION_E eKind;
    GrblBlock block{};
    double dSeconds = 0;
    bool bOn = false; // of a move: it is a jog
    std::string strText{};
};
