// The laser of a controller that speaks Grbl 1.1: what its spindle output does.
#pragma once

#include <string>

#include "BeamLog.h"
#include "GrblPlanner.h"
#include "GrblSettings.h"

/** Has no clock; the planner knows what moves. */
class GrblLaser
{
public:
    /** Both are borrowed as long as the object lives. */
    GrblLaser(const GrblSettings& settings, const GrblPlanner& planner)
        : m_settings(settings), m_planner(planner)
    {
    }

    /** @param dPower  S word */
    void output(SPINDLE_E eSpindle, double dPower);

    /** As output() of off; the power stays. */
    void switchOff()
    {
        m_eSpindle = SPINDLE_OFF;
    }

    /** In laser mode take over the block under way: there it stays when the planner runs dry. */
    void follow();

    /** Keep the light off whatever is output, or stop doing so. */
    void stop(bool bStopped)
    {
        m_bStopped = bStopped;
    }
    bool isStopped() const
    {
        return m_bStopped;
    }

    /** Whether light would come on again once no longer stopped. */
    bool isOutput() const
    {
        return SPINDLE_OFF != m_eSpindle;
    }

    /**
     * Whether light comes out; bMoving is not set.
     * @param nShare  of the power, per cent
     */
    Beam getLight(int nShare) const;

    /** The power that comes out now: dynamic power follows the speed. */
    double getPower(int nShare) const;

    /** The speed, in mm/s, from which dynamic power is whole; 0 while power follows no speed. */
    double getWholeSpeed() const;

    /** Seconds until dynamic power ends; not positive when that is not ahead. */
    double getTimeToDark() const;

    /** In a report: "S" for constant, "C" for dynamic power, else empty. */
    std::string format() const;

private:
    bool isFollowing() const;
    bool isScaled() const;
    double getLastSegment() const;

    const GrblSettings& m_settings;
    const GrblPlanner& m_planner;
    SPINDLE_E m_eSpindle = SPINDLE_OFF;
    double m_dPower = 0;
    bool m_bStopped = false; // by a hold, by the door or by an override
};
