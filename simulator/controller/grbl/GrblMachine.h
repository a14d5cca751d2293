// The machine of a controller that speaks Grbl 1.1: its states, its motion, its laser.
#pragma once

#include <cstdint>
#include <utility>

#include "BeamLog.h"
#include "ControllerJournal.h"
#include "ControllerSettings.h"
#include "GrblAction.h"
#include "GrblHoming.h"
#include "GrblInterpreter.h"
#include "GrblLaser.h"
#include "GrblOverrides.h"
#include "GrblPlanner.h"
#include "GrblSettings.h"
#include "GrblState.h"
#include "GrblStatusReport.h"

/**
 * Carries out actions one after the other and changes its states as the time goes by. Says nothing.
 *
 * Not thread-safe; times are microseconds of a clock that never runs backwards.
 */
class GrblMachine
{
public:
    enum RESULT_E
    {
        RESULT_DONE,
        RESULT_WAIT,   // not yet; ask again after the next change
        RESULT_OUTSIDE // of the soft limits: an alarm
    };

    /**
     * @param settings, interpreter, journal  borrowed as long as the object lives; the interpreter
     *                                        is told where the head is when motion was cut short
     */
    GrblMachine(const ControllerSettings& options, const GrblSettings& settings,
                GrblInterpreter& interpreter, ControllerJournal& journal);

    /** Report to the sink what the beam goes over while light comes out; to nobody at first. */
    void onBeam(BeamSink sink)
    {
        m_beamSink = std::move(sink);
    }

    /** The settings have changed: speeds and accelerations are theirs from now on. */
    void applySettings();

    /** As after any reset: nothing queued, everything off. @param bLock  in alarm, else idle */
    void reset(bool bLock);

    /** Positions are counted from where the head stands, as at power-up; reset() comes next. */
    void loseOrigin();

    /** A reset is coming: end all motion. @return code of "ALARM:N", 0 when nothing did */
    int cutShort();

    /** Stop, off, in alarm. @param bNeedsReset  nothing else is taken until a reset */
    void alarm(bool bNeedsReset);

    // Time.
    int64_t getNowUs() const
    {
        return m_s64NowUs;
    }
    /** When something changes next; -1 when nothing will. */
    int64_t nextEventUs() const;
    /** Let the time pass up to s64Us, not past nextEventUs(); update() and tellBeam() come next. */
    void stepTo(int64_t s64Us);
    /** Change the states that are due. */
    void update();
    /** Write the beam to the journal when it has changed. */
    void tellBeam();

    /** Try an action. It may be tried again at any time while it has to wait. */
    RESULT_E carryOut(const GrblAction& action);

    /** Whether no further action is to be tried for now: held, homing, asleep, locked by alarm. */
    bool isSuspended() const;

    // Real-time bytes; each does nothing in a state that it is not for.
    void hold(); // of a jog: cancelJog() is for that
    void openDoor();
    /** @return whether the spindle comes on again with it */
    bool resume();
    /** @return whether it has begun: the jogs that have not been carried out are to be forgotten */
    bool cancelJog();
    void toggleSpindleStop();
    /** @return whether it was for this state */
    bool toggleCoolant();
    /** @return whether an override has changed */
    bool takeOverride(unsigned char uByte);

    // System commands.
    void unlock()
    {
        m_eState = GRBL_STATE_IDLE;
    }
    void check()
    {
        m_eState = GRBL_STATE_CHECK;
    }
    void sleep();

    GRBL_STATE_E getState() const
    {
        return m_eState;
    }
    bool isHeld() const
    {
        return GRBL_STATE_HOLD == m_eState || GRBL_STATE_DOOR == m_eState;
    }
    const char* getStateName() const
    {
        return formatState(m_eState, m_bHoldDone);
    }
    bool isHomed() const
    {
        return m_bHomed;
    }
    bool isCoolantOn() const
    {
        return m_bCoolant;
    }
    /** Whether the head moves, homing included. */
    bool isMoving() const
    {
        return m_planner.isMoving() || m_homing.isActive();
    }
    bool isOutside(const Point& target) const;

    /** Where the head really is. */
    Point getPosition() const;
    /** Machine position behind all that is queued. */
    const Point& getDestination() const
    {
        return m_planner.getDestination();
    }
    const BeamLog& getBeam() const
    {
        return m_beamLog;
    }
    /** All but the free bytes. */
    GrblStatusReport::Status getStatus() const;

private:
    bool isSynced() const;
    bool dwell(double dSeconds);
    bool move(const GrblAction& action);
    void beginHold(GRBL_STATE_E eState);
    void endMotion();
    void endHoming();
    void switchOff();

    double m_dSpeedUp;
    const GrblSettings& m_settings;
    GrblInterpreter& m_interpreter;
    BeamLog m_beamLog;
    BeamSink m_beamSink;
    GrblPlanner m_planner;
    GrblLaser m_laser;
    GrblOverrides m_overrides;
    GrblHoming m_homing;

    int64_t m_s64NowUs = 0;
    GRBL_STATE_E m_eState = GRBL_STATE_IDLE;
    bool m_bNeedsReset = false; // an alarm that only a reset ends
    bool m_bHoldDone = false;   // held or door: the head stands
    bool m_bJogCancel = false;  // the hold is that of a jog
    bool m_bWasIdle = false;    // the hold began at rest
    bool m_bHomed = false;

    // Moments; -1 when nothing is due.
    int64_t m_s64SlowDownUs = -1; // when a hold takes effect
    int64_t m_s64StandsUs = -1;   // when the head that stands has been noticed
    int64_t m_s64DwellUs = -1;

    bool m_bCoolant = false;
    Point m_origin; // of the machine positions, where the head really is at 0
};
