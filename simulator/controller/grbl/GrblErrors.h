// The codes of "error:N" and "ALARM:N" as published for Grbl 1.1.
#pragma once

enum GRBL_ERROR_E
{
    GRBL_ERROR_NONE = 0,
    GRBL_ERROR_LETTER = 1,   // a word begins with something else
    GRBL_ERROR_NUMBER = 2,   // a word without a number
    GRBL_ERROR_DOLLAR = 3,   // no such "$" line or setting
    GRBL_ERROR_NEGATIVE = 4, // where it has to be positive
    GRBL_ERROR_HOMING_OFF = 5,
    GRBL_ERROR_PULSE = 6, // step pulse below 3 microseconds
    GRBL_ERROR_NOT_IDLE = 8,
    GRBL_ERROR_LOCKED = 9, // alarm or jog
    GRBL_ERROR_NO_HOMING = 10,
    GRBL_ERROR_LINE = 11, // too long
    GRBL_ERROR_JOG_TRAVEL = 15,
    GRBL_ERROR_JOG = 16, // what no jog may say
    GRBL_ERROR_UNSUPPORTED = 20,
    GRBL_ERROR_GROUP = 21, // two codes of one modal group
    GRBL_ERROR_NO_FEED = 22,
    GRBL_ERROR_NOT_WHOLE = 23,
    GRBL_ERROR_TWO_USE_AXES = 24,
    GRBL_ERROR_REPEATED = 25,
    GRBL_ERROR_NO_AXES = 26,
    GRBL_ERROR_MISSING_VALUE = 28,
    GRBL_ERROR_SYSTEM = 29, // no such coordinate system
    GRBL_ERROR_G53 = 30,
    GRBL_ERROR_AXES_UNUSED = 31,
    GRBL_ERROR_ARC_AXES = 32,
    GRBL_ERROR_TARGET = 33,
    GRBL_ERROR_RADIUS = 34,
    GRBL_ERROR_NO_OFFSETS = 35,
    GRBL_ERROR_UNUSED = 36, // a word left over
    GRBL_ERROR_TOOL_AXIS = 37
};

enum GRBL_ALARM_E
{
    GRBL_ALARM_SOFT_LIMIT = 2,
    GRBL_ALARM_RESET_IN_MOTION = 3,
    GRBL_ALARM_RESET_IN_HOMING = 6
};
