// A job's path as an SVG picture.
#pragma once

#include <array>
#include <string>

#include "JobCheck.h"

/** Seen from above, Y upwards, a unit a millimetre; three paths with the classes burn, lit and
 * dark. */
class JobPicture
{
public:
    void add(const GcodeMove& move, MOVE_BEAM_E eBeam);

    /** @param limits  what they leave free is drawn as the workspace */
    std::string draw(const GuardLimits& limits) const;

private:
    /** A path of moves of one kind. */
    struct Trace
    {
        std::string strPath;
        double dX = 0; // where it ends
        double dY = 0;
    };

    std::array<Trace, 3> m_aTrace; // by MOVE_BEAM_E
};
