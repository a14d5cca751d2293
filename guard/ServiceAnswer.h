// What the service is told: that a line is taken, and the codes of refusals.
#pragma once

static const char* const ANSWER_OK = "ok\n";

// docs/guard.md explains them. 2 and 9 would make the service send "$X".
static const int CODE_DARK = 20;
static const int CODE_NEVER = 21;
static const int CODE_LASER = 22;
static const int CODE_CHECK = 23;
static const int CODE_BUSY = 24;
static const int CODE_CONTROLLER = 25;
static const int CODE_TRIPPED = 26;
static const int CODE_IN_JOB = 27;
static const int CODE_LATE = 28;

static const int ERROR_LOCKED = 9; // the controller's

/** The controller's own code as the service may have it. */
inline int toServiceCode(int nCode)
{
    return (2 == nCode || ERROR_LOCKED == nCode || nCode <= 0) ? CODE_CONTROLLER : nCode;
}
