// Turns the width of the spot into the height of the laser.
#include "FocusJudge.h"

#include <algorithm>
#include <cmath>

namespace {

// What a picture's distance may be off, in millimetres and in parts of itself.
const double DISTANCE_ERROR = 0.1;
const double DISTANCE_ERROR_SHARE = 0.2;

// Of what the two sides would have shown, in millimetres.
const double LEAST_DIFFERENCE = 0.05;

// Within which the first picture, nearly sharp, tells the rest of the way better than the second.
const double NEARLY_THERE = 0.2; // millimetres
const double SHARP = 0.05;       // millimetres; what a sharp picture may be off

// A spot that much narrower than in focus, in millimetres of height, isn't the laser's.
const double TOO_NARROW = -0.5;

} // namespace

FocusJudge::FocusJudge(const Parameters& parameters)
    : m_parameters(parameters), m_dSide(parameters.nFirstSide < 0 ? -1 : 1)
{
}

double FocusJudge::distance(double dSigmaMm) const
{
    return (dSigmaMm - m_parameters.dFocusedSigmaMm) / m_parameters.dBlurPerMm;
}

void FocusJudge::seeBefore(double dSigmaMm)
{
    m_bSeenBefore = dSigmaMm > 0;
    m_dDistanceBefore = std::max(distance(dSigmaMm), 0.0);
    m_dZBefore = m_dZ;
    m_dZ = 0;
}

double FocusJudge::side(double dDistance) const
{
    if (0 != m_parameters.nKnownSide) {
        return m_parameters.nKnownSide < 0 ? -1 : 1;
    }
    if (!m_bSeenBefore) {
        return m_dSide;
    }
    const double dErrorAbove = std::fabs(std::fabs(m_dZBefore - dDistance) - m_dDistanceBefore);
    const double dErrorBelow = std::fabs(std::fabs(m_dZBefore + dDistance) - m_dDistanceBefore);
    const double dBest = std::min(dErrorAbove, dErrorBelow);
    if (dBest > DISTANCE_ERROR + DISTANCE_ERROR_SHARE * m_dDistanceBefore ||
        std::fabs(dErrorAbove - dErrorBelow) < LEAST_DIFFERENCE) {
        return m_dSide; // it was not where it was sent to, or that makes no difference
    }
    return dErrorAbove < dErrorBelow ? 1 : -1;
}

double FocusJudge::refined(double dFocusZ) const
{
    const double dWay = dFocusZ - m_dZBefore;
    if (!m_bSeenBefore || std::fabs(dWay) > NEARLY_THERE || m_dDistanceBefore > NEARLY_THERE) {
        return dFocusZ;
    }
    if (m_dDistanceBefore < SHARP) {
        return m_dZBefore;
    }
    return m_dZBefore + std::copysign(std::min(m_dDistanceBefore, std::fabs(dWay)), dWay);
}

bool FocusJudge::judge(double dSigmaMm, double& dHomed)
{
    const double dDistance = distance(dSigmaMm);
    m_dZ = 0;
    if (dDistance > m_parameters.dMaxHeightMm || dDistance < TOO_NARROW) {
        m_bSeenBefore = false;
        return false;
    }
    if (dDistance < m_parameters.dFocusToleranceMm) {
        dHomed = 0;
    } else {
        m_dSide = side(dDistance);
        dHomed = -refined(m_dSide * dDistance);
    }
    m_bSeenBefore = false;
    m_dZ = -dHomed;
    return true;
}
