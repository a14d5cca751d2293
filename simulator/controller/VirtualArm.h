// The arm of the virtual controller in the arm's own language: head, laser and pilot spot.
#pragma once

#include <cstdint>
#include <deque>

#include "BeamLog.h"
#include "ControllerJournal.h"
#include "ControllerSettings.h"
#include "Grammar.h"
#include "Motion.h"

/**
 * Carries out what lines ask for, each in its place behind what is queued.
 *
 * Which lines it gets, and when, is the controller's affair. Not thread-safe; times are
 * microseconds of one clock that never runs backwards.
 */
class VirtualArm
{
public:
    VirtualArm(const ControllerSettings& settings, ControllerJournal& journal);

    /** Report to the sink what the beam goes over while light comes out; to nobody at first. */
    void onBeam(BeamSink sink);

    /** Queue a line's moves, dwells and laser. @return false: too far, none of it is carried out */
    bool carryOut(const ParsedLine& line);
    void home();

    void switchPilot(bool bOn)
    {
        m_bPilotOn = bOn;
    }

    /**
     * Let moves go on.
     * @return positioning moves that have ended; call endMove() for each
     */
    unsigned advance(int64_t s64NowUs);
    void endMove();

    /** It was spoken to: the time of idleness begins anew. */
    void stayAwake(int64_t s64NowUs)
    {
        m_s64BusyUs = s64NowUs;
    }

    /** Switch the laser off when it has been idle for too long. */
    void tireOfIdling(int64_t s64NowUs);

    /** When that will be; -1 when it won't. */
    int64_t getIdleOffUs() const;

    /** Stand still, keeping what is queued, or go on; tell the beam next. */
    void hold(bool bHeld);

    /** Forget what is queued and where the switches are; tell the beam next. */
    void alarm();

    /** Forget what is queued, what was modal and where the switches are; dark. */
    void reset(int64_t s64NowUs);

    /** The same, then as at power-up: laser and pilot spot as the settings say. */
    void restart(int64_t s64NowUs);

    /** Bring the beam's state up to now. */
    void tellBeam(int64_t s64NowUs);

    const Motion& getMotion() const
    {
        return m_motion;
    }
    const BeamLog& getBeam() const
    {
        return m_beamLog;
    }
    bool isHeld() const
    {
        return m_bHeld;
    }
    bool isHomed() const
    {
        return m_bHomed;
    }
    bool isPilotOn() const
    {
        return m_bPilotOn;
    }

private:
    void forgetJob();
    void setLaser(const Laser& laser);
    void updateBeam(int64_t s64AtUs, const Laser& laser, bool bMoving);
    bool isDarkened() const;

    ControllerSettings m_settings;
    ControllerJournal& m_journal;
    BeamLog m_beamLog;
    Motion m_motion;

    bool m_bHeld = false; // stands still until resumed
    bool m_bRelative = false;
    std::deque<bool> m_deqHoming; // per positioning move under way: whether it is a homing
    bool m_bHomed = false;
    bool m_bPilotOn;
    Laser m_laser; // as the lines so far tell it, in front of the queue
    double m_dFeed;
    int64_t m_s64BusyUs = 0; // when it last moved or was spoken to
};
