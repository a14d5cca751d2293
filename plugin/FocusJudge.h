// Turns the sharpness of the spot into the way to the focus.
#pragma once

#include "Parameters.h"

/**
 * The spot's width tells how far the laser is out of focus, but a spot too high and a spot too low
 * look alike. So the first correction assumes a side (Parameters.h); when the spot has become much
 * wider since the last correction, it was the wrong one, and the other is taken from then on. Two
 * corrections at most lead into focus.
 *
 * Not thread-safe.
 */
class FocusJudge
{
public:
    explicit FocusJudge(const Parameters& parameters);

    /** Focused width by present width: 1 in focus, towards 0 as the spot blurs. */
    double sharpness(double dSigmaMm) const;

    /**
     * Call once per picture that shows the last correction carried out.
     * @param dSigmaMm  standard deviation of the spot, in millimetres on the workpiece; above 0
     * @return millimetres to add to z, 0 when it is in focus
     */
    double correction(double dSigmaMm);

private:
    Parameters m_parameters;
    double m_dSide;           // of the focus, where the laser is believed: 1 or -1
    double m_dLastHeight = 0; // |z| at the last correction, 0 when none was needed
};
