// The states of a controller that speaks Grbl 1.1.
#include "GrblState.h"

const char* formatState(GRBL_STATE_E eState, bool bStands)
{
    switch (eState) {
    case GRBL_STATE_IDLE:
        return "Idle";
    case GRBL_STATE_RUN:
        return "Run";
    case GRBL_STATE_HOLD:
        return bStands ? "Hold:0" : "Hold:1";
    case GRBL_STATE_JOG:
        return "Jog";
    case GRBL_STATE_ALARM:
        return "Alarm";
    case GRBL_STATE_DOOR:
        return bStands ? "Door:0" : "Door:2";
    case GRBL_STATE_CHECK:
        return "Check";
    case GRBL_STATE_HOME:
        return "Home";
    default:
        return "Sleep";
    }
}
