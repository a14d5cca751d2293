// The rules between the service, the operator and the controller: what passes, and when the beam
// goes off.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "GcodeCheck.h"
#include "IGuardActions.h"
#include "ILanguage.h"
#include "JobText.h"
#include "LineBuffer.h"

/** What an operator's wish came to. */
enum WISH_E
{
    WISH_DONE,
    WISH_LEVEL,      // not at this level
    WISH_BEAM,       // the controller has not shown that the beam is off
    WISH_BUSY,       // something is under way
    WISH_NOT_HOMED,  // nobody knows where the head is
    WISH_LASER_MODE, // the controller has not shown laser mode
    WISH_LEASE,      // no lease, or a longer one than 10 s
    WISH_UNSUPPORTED // the controller's language has no such thing
};

/**
 * Knows no clock, port or file: events come in with their time, actions go out. Times are
 * microseconds of one clock that never runs backwards. Nothing allocates or blocks. Not
 * thread-safe.
 *
 * It begins dark, with nothing plugged in. After each event the caller looks at getDeadline() anew
 * and calls onTime() when that time has come.
 */
class Interlock
{
public:
    /**
     * All borrowed for the object's life.
     * @param bHoming  false: the arm has no switches; home() takes the place that the controller
     * reports
     */
    Interlock(const ILanguage& language, const GuardLimits& limits, IGuardActions& actions,
              bool bHoming = true);

    // The controller's port.
    void onPortUp(int64_t s64NowUs);
    void onPortLost(int64_t s64NowUs);
    void onControllerBytes(const char* pBytes, size_t uLength, int64_t s64NowUs);

    /** The port has taken all that was sent, and has room; matters while wantsRoom(). */
    void onPortRoom(int64_t s64NowUs);

    // The service's terminal.
    void onServiceBytes(const char* pBytes, size_t uLength, int64_t s64NowUs);
    void onServiceGone(int64_t s64NowUs);

    /** Do what is due. */
    void onTime(int64_t s64NowUs);

    /** When onTime() is due; INT64_MAX when nothing is. */
    int64_t getDeadline() const;

    // The operator. A wish that is not WISH_DONE has changed nothing.

    /** From dark to motion. */
    WISH_E raise(int64_t s64NowUs);

    /** To dark; the beam is cut at once when anything is under way. */
    WISH_E drop(int64_t s64NowUs);

    /** Beam off, at any level. */
    void off(int64_t s64NowUs);

    /** Home the arm; motion only. */
    WISH_E home(int64_t s64NowUs);

    /** Clear the controller's lock; dark only. */
    WISH_E unlock(int64_t s64NowUs);

    /**
     * Open a job; from dark or motion, homed. Only its lines pass from now on.
     * @param pText  borrowed until the level is no longer job
     * @param s64LeaseUs  how long it runs without renewLease(), 10 s at most; 0: for ever
     */
    WISH_E openJob(const char* pText, size_t uSize, int64_t s64LeaseUs, int64_t s64NowUs);
    WISH_E renewLease(int64_t s64NowUs);
    WISH_E pause(int64_t s64NowUs);
    WISH_E resume(int64_t s64NowUs);

    /** Whether sendFirmware() would begin now; sends nothing. */
    WISH_E checkFirmware(int64_t s64NowUs) const;

    /**
     * Send the controller its firmware; dark only, and nothing else passes until it is through.
     * @param pImage  borrowed while isSendingFirmware()
     */
    WISH_E sendFirmware(const char* pImage, size_t uSize, int64_t s64NowUs);

    /** The reset line was held low already when this object began. */
    void noteResetHeld()
    {
        m_bResetHeld = true;
    }

    /** Let the reset line go that is held low since the beam was not seen off. */
    void clearReset();

    /** The guard ends: beam off. */
    void shutdown(int64_t s64NowUs);

    LEVEL_E getLevel() const
    {
        return m_eLevel;
    }
    bool isBeamSeenOff() const
    {
        return OFF_SEEN == m_eOff;
    }
    bool isHomed() const
    {
        return m_check.isPositionKnown();
    }
    bool isPaused() const
    {
        return JOB_PAUSED == m_eJob;
    }
    /** Whether the controller holds a job by itself, or slows down for that. */
    bool isHeld() const
    {
        return m_bHeld && !isPausedByOperator();
    }
    size_t getJobLine() const
    {
        return m_job.getLine();
    }
    bool isSendingFirmware() const
    {
        return FIRMWARE_NONE != m_firmware.eState;
    }
    /** Bytes that the port has taken of the firmware that passes now. */
    size_t getFirmwareTaken() const
    {
        return m_firmware.uTaken;
    }
    bool wantsRoom() const
    {
        return FIRMWARE_SENDING == m_firmware.eState;
    }
    bool isResetHeld() const
    {
        return m_bResetHeld;
    }

private:
    enum OFF_E
    {
        OFF_SENT,    // wanted, told when there is a port; no greeting yet
        OFF_GREETED, // waits for a report without beam
        OFF_SEEN
    };
    enum JOB_E
    {
        JOB_NONE,
        JOB_RUNNING,
        JOB_PAUSING,
        JOB_PAUSED,
        JOB_DRAINING, // all lines taken, the controller still moves
        JOB_ENDING    // idle, laser off sent
    };
    enum SLOT_E
    {
        SLOT_FREE,
        SLOT_KEPT, // not taken by the controller: goes out when the service repeats it
        SLOT_SENT,
        SLOT_TAKEN // acknowledged, but the service was told to wait
    };
    enum MOVE_E
    {
        MOVE_NONE,
        MOVE_SENT,
        MOVE_TAKEN,
        MOVE_PILOT, // the M18 behind it is under way
        MOVE_ENDED  // the service's second answer is due
    };
    enum EXPECT_E
    {
        EXPECT_NOTHING, // the answer is of no interest
        EXPECT_LIGHT,   // nor is this one, and moves need not wait for it
        EXPECT_LINE,
        EXPECT_MOVE,
        EXPECT_PILOT,
        EXPECT_PROBE_IDLE,
        EXPECT_PROBE_HELD,
        EXPECT_END,
        EXPECT_SETTINGS,
        EXPECT_FIRMWARE
    };
    enum FIRMWARE_E
    {
        FIRMWARE_NONE,
        FIRMWARE_ANNOUNCED,
        FIRMWARE_SENDING,
        FIRMWARE_SETTLING // all of it is sent; the wire stays quiet for a while
    };

    /** The line of the service's that is under way. */
    struct Slot
    {
        SLOT_E eState = SLOT_FREE;
        bool bWaiting = false; // the service waits for an answer
        bool bJob = false;     // may take as long as a job line
        int64_t s64AnswerByUs = 0;
        size_t uLength = 0;
        std::array<char, LineBuffer::MAX_LINE> acText{};
    };
    struct Move
    {
        MOVE_E eState = MOVE_NONE;
        bool bHome = false;
        bool bForService = false; // else the operator's, or one that the service was told off for
        bool bFirstTold = false;
        bool bRefused = false; // the controller refused it behind the first answer
        int nPilot = -1;       // 0, 1: M18 comes behind it
        int nIdleReports = 0;
        int nCode = 0;
        int64_t s64BeganUs = 0;
        int64_t s64FirstUs = 0;
        int64_t s64LimitUs = 0;
    };
    struct Firmware
    {
        FIRMWARE_E eState = FIRMWARE_NONE;
        const char* pImage = nullptr;
        size_t uSize = 0;
        size_t uSent = 0;    // begun
        size_t uTaken = 0;   // by the port, whole
        int64_t s64ByUs = 0; // when a block has to be through, or the wire was quiet
    };
    /** A second answer to a refused command. */
    struct Second
    {
        int64_t s64DueUs;
        int nCode;
    };
    struct Expected
    {
        EXPECT_E eKind;
        size_t uBytes;
        int64_t s64ByUs; // else it is late
    };

    // What the service sends.
    void onServiceByte(char c, int64_t s64NowUs);
    void onServiceLine(int64_t s64NowUs);
    void takeJobLine(const char* pText, size_t uLength, int64_t s64NowUs);
    bool takeForeignLine(const char* pText, size_t uLength, int64_t s64NowUs);
    void takeLine(const char* pText, size_t uLength, int64_t s64NowUs);
    void takeMotionLine(const char* pText, size_t uLength, int64_t s64NowUs);
    void takePilot(const char* pText, size_t uLength, int64_t s64NowUs);
    void takeMove(const char* pText, size_t uLength, int64_t s64NowUs);
    void takeRepeat(int64_t s64NowUs);
    void fillSlot(const char* pText, size_t uLength, int64_t s64NowUs);
    bool sendLine(const char* pBytes, size_t uLength, int64_t s64DurationUs, int64_t s64NowUs);
    void forwardSlot(int64_t s64NowUs);
    void beginMove(bool bHome, bool bForService, int64_t s64DurationUs, int64_t s64NowUs);
    void cutShort(int64_t s64NowUs);

    // Answers to the service.
    void answer(const char* pText);
    void answerSlot(const char* pText, int64_t s64NowUs);
    void answerTaken(int64_t s64NowUs);
    void answerHeld(int nCode, int64_t s64NowUs);
    void freeSlot();
    void refuse(int nCode);
    void refuseTwice(int nCode, int64_t s64NowUs);
    void answerSeconds(int64_t s64NowUs);

    // What the controller sends.
    void onReply(const Reply& reply, int64_t s64NowUs);
    void onReplyWhileOff(const Reply& reply, int64_t s64NowUs);
    void onGreeting(int64_t s64NowUs);
    void onGreetingAgain(int64_t s64NowUs);
    Expected takeExpected();
    void onAnswer(bool bOk, int nCode, int64_t s64NowUs);
    void onLineAnswer(bool bOk, int nCode, int64_t s64NowUs);
    void onMoveAnswer(bool bOk, int nCode, int64_t s64NowUs);
    void onStatus(int nCode, int64_t s64NowUs);
    void onStatusAlone(int64_t s64NowUs);
    void onReport(const Reply& reply, int64_t s64NowUs);
    void endMove(int64_t s64NowUs);
    void finishMove(int64_t s64NowUs);
    void lightPilot(int64_t s64NowUs);
    void setHeld(bool bHeld, int64_t s64NowUs);

    // The controller's firmware.
    void onFirmwareAnswer(bool bOk, int nCode, int64_t s64NowUs);
    void onFirmwareTime(int64_t s64NowUs);
    void endFirmware(int64_t s64NowUs);
    void forgetFirmware();

    // Levels.
    void holdReset();
    void setLevel(LEVEL_E eLevel);
    void trip(TRIP_E eReason, int nDetail, int64_t s64NowUs);
    void startOff(int64_t s64NowUs);
    void tellOff(int64_t s64NowUs);
    void offSeen(int64_t s64NowUs);
    void forget(int64_t s64NowUs);
    void drainIfDone(int64_t s64NowUs);
    void endJob(int64_t s64NowUs);
    void leaveJob();
    TRIP_E findOverdue(int64_t s64NowUs) const;
    void answerInTime(int64_t s64NowUs);
    void driveMove(int64_t s64NowUs);
    void askIfDue(int64_t s64NowUs);
    int64_t getAskPause() const;
    int64_t getServiceDueUs() const;
    bool isHolding() const;
    bool isPausedByOperator() const;
    bool isGreetingDue(int64_t s64NowUs) const;
    bool isUnderWay(int64_t s64NowUs) const;
    bool isQuiet(int64_t s64NowUs) const;
    bool send(const char* pText, EXPECT_E eKind, int64_t s64NowUs);
    bool send(const char* pBytes, size_t uLength, EXPECT_E eKind, int64_t s64NowUs);

    const ILanguage& m_language;
    IGuardActions& m_actions;
    GcodeCheck m_check;
    JobText m_job;
    Firmware m_firmware;
    bool m_bHoming;
    bool m_bTakePosition = false; // of the next report at rest

    LEVEL_E m_eLevel = LEVEL_DARK;
    JOB_E m_eJob = JOB_NONE;
    OFF_E m_eOff = OFF_SENT;
    bool m_bPort = false;
    bool m_bLaserMode = false;
    bool m_bPilotOn = false;
    bool m_bResetHeld = false;
    bool m_bLoaderMayTakeIt = false; // what was told off last went to a controller that loads
    int m_nOffTold = 0;              // times that the beam was told off since it was last seen off
    int64_t m_s64OffUs = 0;          // when it is told again
    int m_nGreetingsDue = 0;         // each time that it is told may bring one
    int64_t m_s64GreetingUs = 0;     // until then
    size_t m_uSettings = 0;          // settings lines asked for
    int64_t m_s64BusyUs = 0; // when the controller will have done what it has, at the latest
    // 18: both controllers queue 16 moves at most; one is under way, one just sent.
    std::array<int64_t, 18> m_as64MoveUs{}; // estimates of the last moves
    size_t m_uOldestMove = 0;

    LineBuffer m_fromService;
    int64_t m_s64PieceUs = 0;  // when its first byte came
    bool m_bDropRest = false;  // of a line that was given up
    bool m_bAfterLine = false; // a line end right behind belongs to the line before
    int64_t m_s64LineEndUs = 0;
    Slot m_slot;
    GcodeCheck m_beforeSlot; // as it was before the slot's line was sent
    Move m_move;
    int m_nStray = 0; // answers to strangers, which the job's reader may have taken for its own
    std::array<Second, 4> m_aSecond{};
    size_t m_uSecond = 0;
    bool m_bMoveRefused = false; // an M18 behind it has no answer of its own
    bool m_bAnswered = false;    // the job's reader has had an answer
    int64_t m_s64AnsweredUs = 0;
    bool m_bHoldTold = false; // the service was told status 1 and not yet 4
    bool m_bEndDue = false;   // the empty line behind a job's last one has not come

    LineBuffer m_fromController;
    std::array<Expected, 16> m_aExpected{}; // what is not answered yet, the oldest first
    size_t m_uExpected = 0;
    size_t m_uOutstanding = 0; // bytes of it
    int m_nStatus = 0;         // a status whose answer may come yet
    int64_t m_s64StatusUs = 0;
    bool m_bHeld = false; // by the controller itself
    int64_t m_s64HeldUs = 0;
    int64_t m_s64AskUs = 0;    // when the next question is due
    int64_t m_s64SilentUs = 0; // the oldest question without a report; 0: none

    int m_nIdleReports = 0;
    bool m_bEndTaken = false;
    int64_t m_s64JobStepUs = 0; // when pausing, draining or ending has to be through
    int64_t m_s64ProbeUs = 0;   // when to probe again; 0: not
    int64_t m_s64LeaseUs = 0;   // length; 0: for ever
    int64_t m_s64LeaseEndUs = 0;
};
