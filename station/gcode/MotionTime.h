// How long a job's moves take.
#pragma once

#include <deque>

#include "GcodeCheck.h"

/**
 * Trapezoids over straight lines, as a Grbl 1.1 controller plans them with the settings that it is
 * delivered with: corners by the junction deviation of 0.01 mm, arcs as chords within 0.002 mm, 16
 * lines looked ahead, 25 ms at each stop. Every axis has the same acceleration and the same rapid
 * rate. What the lines take on the wire does not count.
 */
class MotionTime
{
public:
    /**
     * @param dAcceleration  mm/s^2 of each axis, above zero
     * @param dRapidFeed     mm/min of each axis with G0; 0: G0 has the feed in force
     */
    MotionTime(double dAcceleration, double dRapidFeed);

    void add(const GcodeMove& move);

    /** All motion ends, then so many seconds pass. */
    void stop(double dSeconds);

    /** With all that was added; what comes next begins at rest. */
    double finish();

private:
    struct Block
    {
        MachinePoint unit;
        double dLength;
        double dAcceleration;
        double dSpeed;
        double dJunction; // greatest speed at its beginning, by the corner alone
        double dEntry;    // planned speed at its beginning
    };

    void addLine(const MachinePoint& from, const MachinePoint& to, double dSpeed, bool bRapid);
    void addArc(const GcodeMove& move);
    static double getCornerSpeed(const Block& former, const Block& block);
    void plan();
    void passFirst();

    double m_dAcceleration;
    double m_dRapidSpeed; // mm/s; 0: none
    double m_dSeconds = 0;
    double m_dSpeed = 0;          // at the beginning of the first block
    std::deque<Block> m_deqBlock; // at most 17
};
