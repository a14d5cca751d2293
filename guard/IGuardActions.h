// What the interlock has done: bytes out, the reset line, and what people are told.
#pragma once

#include <cstddef>

enum LEVEL_E
{
    LEVEL_DARK,   // nothing passes but questions and beam off
    LEVEL_MOTION, // homing and moves with the beam off
    LEVEL_JOB     // the lines of the job that the operator has opened
};

/** Why the beam was turned off. */
enum TRIP_E
{
    TRIP_NONE,
    TRIP_SERVICE_GONE,      // its end of the terminal was closed
    TRIP_SERVICE_SILENT,    // no line within 2 s of an answer
    TRIP_LINE_CUT,          // a line came in pieces
    TRIP_LINE_BAD,          // detail: LINE_FAULT_E
    TRIP_LINE_FOREIGN,      // not the job's next line
    TRIP_LINE_LATE,         // the controller did not answer it in its time
    TRIP_CONTROLLER_SILENT, // no report for 1 s
    TRIP_CONTROLLER_GONE,   // unplugged
    TRIP_CONTROLLER_RESET,  // a greeting that nobody asked for
    TRIP_ALARM,             // detail: its code
    TRIP_ERROR,             // detail: its code
    TRIP_GARBAGE,           // a reply that means nothing
    TRIP_ANSWER,            // an answer too many
    TRIP_BEAM_SEEN,         // a report with the beam on where it has to be off
    TRIP_PAUSE_LATE,        // a pause that did not turn dark within 1 s
    TRIP_END_LATE,          // the end of a job that did not
    TRIP_LEASE,             // not renewed
    TRIP_FIRMWARE,          // the controller takes no more of its firmware
    TRIP_OPERATOR,
    TRIP_SHUTDOWN
};

/** What has happened, for the journal and the operator. */
enum NOTICE_E
{
    NOTICE_LEVEL,      // detail: LEVEL_E
    NOTICE_TRIP,       // detail: TRIP_E; followed by NOTICE_DETAIL
    NOTICE_DETAIL,     // detail: as TRIP_E tells
    NOTICE_OFF_SEEN,   // the controller has shown that the beam is off
    NOTICE_OFF_FAILED, // it has not, within a second; detail: how often it was told
    NOTICE_HOMED,
    NOTICE_REFUSED, // a line of the service's was refused; detail: the answer's code
    NOTICE_DROPPED, // something of the service's or the controller's was not understood
    NOTICE_STATUS,  // the controller tells a status that nobody waited for; detail: its code
    NOTICE_HELD,    // the controller holds by itself
    NOTICE_GOES_ON,
    NOTICE_PAUSING,
    NOTICE_PAUSED, // and dark
    NOTICE_RESUMED,
    NOTICE_JOB_DONE,         // detail: lines
    NOTICE_LASER_MODE,       // detail: 1 on, 0 off
    NOTICE_FIRMWARE_REFUSED, // detail: the controller's code
    NOTICE_FIRMWARE_STOPPED, // detail: bytes that the port had taken
    NOTICE_FIRMWARE_TAKEN    // detail: bytes, which is all
};

/** Called by the interlock, on its thread; must not call back. */
class IGuardActions
{
public:
    virtual ~IGuardActions() = default;

    /** Send to the controller, behind what was sent before. */
    virtual void toController(const char* pBytes, size_t uLength) = 0;

    /** Send to the controller at once: what has not gone out yet is dropped. */
    virtual void cutBeam(const char* pBytes, size_t uLength) = 0;

    /** Send to the service, in one write. */
    virtual void toService(const char* pBytes, size_t uLength) = 0;

    /** Hold the controller's reset line low, or let it go. */
    virtual void holdReset(bool bLow) = 0;

    virtual void tell(NOTICE_E eNotice, int nDetail) = 0;
};
