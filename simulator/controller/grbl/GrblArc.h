// A G2 or G3 arc in Grbl 1.1: its centre, and the chords that it is carried out as.
#pragma once

#include <cstddef>
#include <vector>

#include "GrblModes.h"
#include "GrblWords.h"
#include "Motion.h"

/** Of a plane that may be any of the three; the third axis goes along evenly (a helix). */
class GrblArc
{
public:
    /**
     * @param modes  whose motion is 2 or 3: its plane and its units are those of the arc
     */
    GrblArc(const Point& start, const Point& target, const GrblModes& modes);

    /**
     * Take the words of the centre: R, or the offsets of the plane's axes.
     * @return 0 or the code of "error:N"
     */
    int read(GrblWords& words);

    /**
     * The ends of the chords, the last one the target itself. After read().
     * @param dTolerance  how far a chord may be off the arc, in millimetres
     */
    std::vector<Point> divide(double dTolerance) const;

private:
    int readRadius(double dRadius);
    int readOffsets(GrblWords& words);

    Point m_start;
    Point m_target;
    bool m_bClockwise;
    double m_dUnit;
    size_t m_uA; // the plane's axes
    size_t m_uB;
    size_t m_uC; // the other one
    double m_dX; // from start to target in the plane
    double m_dY;
    double m_dI = 0; // from start to centre
    double m_dJ = 0;
};
