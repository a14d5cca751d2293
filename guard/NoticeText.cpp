// What the interlock tells, as words for the journal and the operator.
#include "NoticeText.h"

const char* getLevelName(LEVEL_E eLevel)
{
    switch (eLevel) {
    case LEVEL_DARK:
        return "dark";
    case LEVEL_MOTION:
        return "motion";
    case LEVEL_JOB:
        return "job";
    }
    return "";
}

const char* getTripName(TRIP_E eReason)
{
    switch (eReason) {
    case TRIP_NONE:
        return "none";
    case TRIP_SERVICE_GONE:
        return "service gone";
    case TRIP_SERVICE_SILENT:
        return "service silent";
    case TRIP_LINE_CUT:
        return "line cut";
    case TRIP_LINE_BAD:
        return "line must not pass";
    case TRIP_LINE_FOREIGN:
        return "not the job's next line";
    case TRIP_LINE_LATE:
        return "line not taken in its time";
    case TRIP_CONTROLLER_SILENT:
        return "controller silent";
    case TRIP_CONTROLLER_GONE:
        return "controller gone";
    case TRIP_CONTROLLER_RESET:
        return "controller reset";
    case TRIP_ALARM:
        return "alarm";
    case TRIP_ERROR:
        return "error";
    case TRIP_GARBAGE:
        return "garbage";
    case TRIP_ANSWER:
        return "answer too many";
    case TRIP_BEAM_SEEN:
        return "beam seen";
    case TRIP_PAUSE_LATE:
        return "pause not dark";
    case TRIP_END_LATE:
        return "end not dark";
    case TRIP_LEASE:
        return "lease";
    case TRIP_FIRMWARE:
        return "firmware not taken";
    case TRIP_OPERATOR:
        return "operator";
    case TRIP_SHUTDOWN:
        return "shutdown";
    }
    return "";
}

const char* getNoticeName(NOTICE_E eNotice)
{
    switch (eNotice) {
    case NOTICE_LEVEL:
        return "level";
    case NOTICE_TRIP:
        return "trip";
    case NOTICE_DETAIL:
        return "detail";
    case NOTICE_OFF_SEEN:
        return "beam seen off";
    case NOTICE_OFF_FAILED:
        return "BEAM NOT SEEN OFF";
    case NOTICE_HOMED:
        return "homed";
    case NOTICE_REFUSED:
        return "refused";
    case NOTICE_DROPPED:
        return "not understood";
    case NOTICE_STATUS:
        return "status";
    case NOTICE_HELD:
        return "held";
    case NOTICE_GOES_ON:
        return "goes on";
    case NOTICE_PAUSING:
        return "pausing";
    case NOTICE_PAUSED:
        return "paused, dark";
    case NOTICE_RESUMED:
        return "resumed";
    case NOTICE_JOB_DONE:
        return "job done";
    case NOTICE_LASER_MODE:
        return "laser mode";
    case NOTICE_FIRMWARE_REFUSED:
        return "firmware refused";
    case NOTICE_FIRMWARE_STOPPED:
        return "firmware stopped";
    case NOTICE_FIRMWARE_TAKEN:
        return "firmware taken";
    }
    return "";
}

const char* getWishText(WISH_E eWish)
{
    switch (eWish) {
    case WISH_DONE:
        return "done";
    case WISH_LEVEL:
        return "not at this level";
    case WISH_BEAM:
        return "the controller has not shown that the beam is off";
    case WISH_BUSY:
        return "something is under way";
    case WISH_NOT_HOMED:
        return "the arm is not homed";
    case WISH_LASER_MODE:
        return "the controller has not shown laser mode";
    case WISH_LEASE:
        return "a lease is 1 to 10000 milliseconds";
    case WISH_UNSUPPORTED:
        return "not supported";
    }
    return "";
}
