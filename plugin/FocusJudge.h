// Turns the width of the spot into the height of the laser.
#pragma once

#include "Parameters.h"

/**
 * The spot's width tells how far the laser is from its focus, but a spot too high and a spot too
 * low look alike. Two pictures at different heights tell them apart, and the service takes two for
 * each measurement: the first where the last measurement left the arm, the second after the arm has
 * been homed. When the first doesn't show an arm that could be where it was sent to, the side stays
 * what it was; until one is known, Parameters.h has it. So a wrong first side is put right by the
 * second measurement.
 *
 * A picture measures a small distance better than a large one. An arm that was sent to the right
 * side is nearly in focus in the next measurement's first picture, which then gives the rest. One
 * that was sent to the wrong side has only the two looks from home: their mean is taken, and the
 * second needs more light.
 *
 * A second picture that shows what the first did, though the arm was moved in between, was taken
 * before the move. When the last measurement's look from home goes together with the first picture,
 * it is taken in place of the second.
 *
 * Heights are in millimetres along the arm's Z axis, which is 0 when homed. Not thread-safe.
 */
class FocusJudge
{
public:
    explicit FocusJudge(const Parameters& parameters);

    /**
     * A measurement begins: note its first picture. The arm is homed after it.
     * @param dSigmaMm  standard deviation of the spot, in millimetres on the workpiece; 0 when the
     *                  picture doesn't tell it
     */
    void seeBefore(double dSigmaMm);

    /**
     * The homed arm's picture.
     * @param dHomed  how high the homed laser stands over its focus; its Z is to become -dHomed,
     *                where the next measurement's first picture expects it
     * @param dRedness  of the spot: a stronger one is coded more exactly, and has more weight
     * @return false when the width cannot be that of the laser, or is too large to be exact;
     *         the arm is then believed to stay at home
     */
    bool judge(double dSigmaMm, double& dHomed, double dRedness = 1);

    /** The homed arm was far from its focus in its last picture: a brighter one would show more. */
    bool wantsLight() const;

private:
    struct Home
    {
        double dDistance = 0;
        double dWeight = 0; // 0: none
    };
    struct Near
    {
        bool bKnown;
        double dZ;
        double dDistance;
    };

    /** How far from its focus, to either side; below 0 when narrower than in focus. */
    double distance(double dSigmaMm) const;

    /** How far the first picture is from showing a focus at that height. */
    double misfit(double dFocusZ) const;

    /** Whether the first picture could show a focus so far from home, on either side. */
    bool fits(double dDistance) const;

    /** Whether the second picture is one from before the arm was homed. */
    bool isFromBefore(double dDistance) const;

    /** 1 when the focus is above the homed laser, -1 when below, as the pictures have it. */
    double side(double dDistance) const;

    /**
     * A sharp spot shows its distance better than a blurred one: when the first picture was nearly
     * in focus, the way from there is no longer than it says, and none when it was sharp. When it
     * was too bright to say, the arm goes back there unless the second picture contradicts it.
     */
    double refined(double dFocusZ) const;

    Parameters m_parameters;
    double m_dSide;  // last known, or the parameters'
    double m_dZ = 0; // where the arm was left
    bool m_bSeenBefore = false;
    double m_dZBefore = 0;        // where the arm stood in the first picture
    double m_dDistanceBefore = 0; // what that picture showed
    Home m_home;                  // last measurement's look from home
    Near m_near{};                // last measurement's first picture, when it was nearly sharp
    bool m_bLookAgain = false;
};
