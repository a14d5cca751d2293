// Whether a line of G-code may pass: words, box, feed and power, and how long it takes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "GcodeLine.h"

/** A point in millimetres of the homed machine: x, y, z. */
using MachinePoint = std::array<double, 3>;

/** What a line must stay within. All finite; the configuration sees to that. */
struct GuardLimits
{
    MachinePoint minimum{};
    MachinePoint maximum{};
    double dMaxFeed = 0;      // millimetres per minute
    double dMaxPower = 0;     // the language's unit (S word)
    double dAcceleration = 0; // mm/s^2 of the slowest axis, for durations
    double dRapidFeed = 0; // mm/min of G0 where the controller has a rate of its own; 0: the feed
};

/** How a line moved the head; dLength is 0 when it did not. */
struct GcodeMove
{
    MachinePoint from{};
    MachinePoint to{};
    int nMotion = 0;    // 0 to 3, as G0 to G3
    double dFeed = 0;   // mm/min
    double dLength = 0; // mm, along the arc
    // Arcs only; millimetres and radians, in the plane of X and Y.
    double dCentreX = 0;
    double dCentreY = 0;
    double dRadius = 0;
    double dStart = 0;  // direction from the centre to the beginning
    double dTravel = 0; // above zero; clockwise with G2
};

/** The words that a language knows and a guard lets pass; tenths, as in GcodeLine. */
struct AllowedWords
{
    const int* pG;
    size_t uG;
    const int* pM;
    size_t uM;
    bool bEndTakesModesBack; // M2 and M30 lead to G1, G54 and G90
};

/**
 * Follows where the lines that passed lead the head: units, absolute and relative positions,
 * coordinate systems, feed and power.
 *
 * A line is looked at as a whole; one that is refused changes nothing. Never blocks, allocates or
 * logs; not thread-safe. Arcs count with their extremes, in the plane of X and Y only.
 */
class GcodeCheck
{
public:
    static const size_t SYSTEMS = 6; // G54 to G59

    /** @param dPowerUpFeed  the feed after a reset, in mm/min; 0 where the first move has to give
     * it */
    GcodeCheck(const GuardLimits& limits, const AllowedWords& words, double dPowerUpFeed);

    /** As after the controller's reset: the position is unknown, what is modal is at its start. */
    void reset();

    /** The head stands there, e.g. after homing or as the controller reports. */
    void setPosition(const MachinePoint& position);

    /** Nobody knows where the head is: lines that move are refused until setPosition(). */
    void losePosition();

    bool isPositionKnown() const
    {
        return m_bKnown;
    }
    const MachinePoint& getPosition() const
    {
        return m_modal.position;
    }

    /** How the last good line of apply() moved the head. */
    const GcodeMove& getMove() const
    {
        return m_modal.move;
    }

    /** The power in force, whether or not the beam is on. */
    double getPower() const
    {
        return m_modal.dPower;
    }

    /** The origin of a coordinate system, as the controller tells it. @param uSystem  0 is G54 */
    void setSystem(size_t uSystem, const MachinePoint& origin);

    /** The shift of G92, as the controller tells it. */
    void setShift(const MachinePoint& shift);

    /**
     * Look at a line and follow it when it is good.
     * @param bBeamAllowed  false: M3, M4 and a power above zero are refused
     * @param s64DurationUs  an upper estimate of how long the line takes, when it is good
     */
    LINE_FAULT_E apply(const GcodeLine& line, bool bBeamAllowed, int64_t& s64DurationUs);

    /**
     * A move to a place in the homed machine's own coordinates, by the axes and the feed that the
     * line names. Refused as LINE_FORBIDDEN while lines have relative positions or inches in force.
     */
    LINE_FAULT_E applyMove(const GcodeLine& line, int64_t& s64DurationUs);

private:
    struct Modal
    {
        MachinePoint position{};
        std::array<MachinePoint, SYSTEMS> systems{};
        MachinePoint shift{};
        size_t uSystem = 0;
        int nMotion = 0; // 0 to 3
        bool bRelative = false;
        bool bInches = false;
        double dFeed = 0;
        double dPower = 0;
        GcodeMove move;
    };

    LINE_FAULT_E checkWords(const GcodeLine& line) const;
    LINE_FAULT_E takeValues(const GcodeLine& line, bool bBeamAllowed, Modal& modal) const;
    static void takeModes(const GcodeLine& line, Modal& modal);
    LINE_FAULT_E takeMotion(const GcodeLine& line, Modal& modal, int64_t& s64DurationUs) const;
    LINE_FAULT_E takeArc(const GcodeLine& line, const Modal& modal, GcodeMove& move) const;
    MachinePoint findTarget(const GcodeLine& line, const Modal& modal) const;
    bool isInBox(const MachinePoint& point) const;
    int64_t estimateUs(double dLength, double dFeed) const;

    GuardLimits m_limits;
    AllowedWords m_words;
    double m_dPowerUpFeed;
    Modal m_modal;
    bool m_bKnown = false;
};
