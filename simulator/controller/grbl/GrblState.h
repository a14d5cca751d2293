// The states of a controller that speaks Grbl 1.1.
#pragma once

enum GRBL_STATE_E
{
    GRBL_STATE_IDLE,
    GRBL_STATE_RUN,
    GRBL_STATE_HOLD,
    GRBL_STATE_JOG,
    GRBL_STATE_ALARM,
    GRBL_STATE_DOOR,
    GRBL_STATE_CHECK,
    GRBL_STATE_HOME,
    GRBL_STATE_SLEEP
};

/** As a status report names it. @param bStands  with hold and door: the head stands */
const char* formatState(GRBL_STATE_E eState, bool bStands);
