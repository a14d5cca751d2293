// A motion controller's language as the guard needs it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "GcodeCheck.h"
#include "GcodeLine.h"

enum REPLY_E
{
    REPLY_OK,         // the oldest line that is not yet answered is taken
    REPLY_ERROR,      // it is refused, nCode
    REPLY_DONE,       // a positioning move or the homing has ended
    REPLY_STATUS,     // nCode: 1, 3 held; 2 attention; 4 goes on
    REPLY_ALARM,      // nCode: the arm has stopped
    REPLY_GREETING,   // the controller has started anew
    REPLY_REPORT,     // eRun, bSpindle and, with bPosition, position
    REPLY_LASER_MODE, // bSpindle: the setting is on
    REPLY_SYSTEM, // position: the origin of coordinate system nCode (0 is G54, 6 the shift of G92)
    REPLY_NOTE,   // for people; means nothing to the guard
    REPLY_GARBAGE
};

/** What a report says of the motion. */
enum RUN_E
{
    RUN_IDLE,
    RUN_MOVING,
    RUN_SLOWING, // a hold that still slows down
    RUN_HELD,
    RUN_ALARM
};

/** One line from the controller. */
struct Reply
{
    REPLY_E eKind = REPLY_GARBAGE;
    int nCode = 0;
    RUN_E eRun = RUN_IDLE;
    bool bSpindle = false; // the laser's output is on
    bool bPosition = false;
    MachinePoint position{};
};

/**
 * What the controller's lines mean, and how it is told what.
 *
 * Stateless, so that any object may use one; nothing allocates or blocks. Texts that go out are
 * whole, with their line ends, and constant.
 */
class ILanguage
{
public:
    virtual ~ILanguage() = default;

    /** Read a line from the controller, without its line end; any bytes are fine. */
    virtual Reply parse(const char* pLine, size_t uLength) const = 0;

    /** Words that lines may have. */
    virtual AllowedWords getWords() const = 0;

    /** The feed after a reset, in mm/min; 0 when the first move has to give it. */
    virtual double getPowerUpFeed() const = 0;

    /** What turns the beam off at once, whatever the controller does; answered by the greeting. */
    virtual const char* getBeamOff() const = 0;

    /** What turns the beam off behind all that is queued. */
    virtual const char* getLaserOff() const = 0;

    virtual const char* getHold() const = 0;
    virtual const char* getResume() const = 0;
    virtual const char* getUnlock() const = 0;
    virtual const char* getHome() const = 0;

    /** The pilot spot on or off; answered when all motion before it has ended, unless hasReports().
     */
    virtual const char* getPilot(bool bOn) const = 0;

    /** Whether a reset, and so each beam off, turns the pilot spot off. */
    virtual bool isPilotOffByReset() const = 0;

    /** Asks for a report; may be sent at any time. Empty unless hasReports(). */
    virtual const char* getQuestion() const = 0;

    /** Announces a firmware image, whose bytes follow; null where there is no such thing. */
    virtual const char* getFirmwareLine() const = 0;

    /** A line without effect; answered by a status while the controller is held. */
    virtual const char* getProbe() const = 0;

    /** Lines that ask for settings, one by one; null behind the last. @param uIndex  from 0 */
    virtual const char* getSettingsLine(size_t uIndex) const = 0;

    /** Whether reports tell of motion and beam. Without, answers in order have to do. */
    virtual bool hasReports() const = 0;

    /** Whether the resume is a line, which is answered, and not a byte. */
    virtual bool isResumeAnswered() const = 0;

    /** Whether homing is answered when it has ended, and not also when it is taken. */
    virtual bool isHomeAnsweredOnce() const = 0;

    /** Whether a job needs the controller's laser mode, told by REPLY_LASER_MODE. */
    virtual bool needsLaserMode() const = 0;

    /** Bytes of lines that the controller can hold unanswered. */
    virtual size_t getBufferSize() const = 0;

    /**
     * A line as it goes out, with its line end.
     * @param pText  the line as it came, without its line end
     * @return its length; 0 when there is nothing to send, or no room
     */
    virtual size_t encodeLine(const char* pText, size_t uLength, const GcodeLine& line, char* pOut,
                              size_t uRoom) const = 0;

    /** As encodeLine(), for a "G05" line: a straight move in the machine's own coordinates. */
    virtual size_t encodeMove(const char* pText, size_t uLength, const GcodeLine& line, char* pOut,
                              size_t uRoom) const = 0;
};
