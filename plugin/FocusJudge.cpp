// Turns the width of the spot into the height of the laser.
#include "FocusJudge.h"

#include <algorithm>
#include <cmath>

namespace {

// The error of a picture's distance, in millimetres and relative.
const double DISTANCE_ERROR = 0.1;
const double DISTANCE_ERROR_SHARE = 0.2;

// Within which two pictures of one height agree: coding differs with light and place only.
const double SAME_HEIGHT = 0.1; // millimetres
const double SAME_HEIGHT_SHARE = 0.1;

// Between what the two sides would have shown, in millimetres.
const double LEAST_DIFFERENCE = 0.05;

// Within this the first picture, nearly sharp, gives the remaining way better than the second.
const double NEARLY_THERE = 0.5; // millimetres
const double SHARP = 0.06;       // millimetres; the error of a sharp picture

// A home this far from the focus is worth a second look in better light, in millimetres.
const double FAR = 1.0;

// A spot that much narrower than in focus, in millimetres of height, isn't the laser's.
const double TOO_NARROW = -0.5;

double error(double dDistance)
{
    return DISTANCE_ERROR + DISTANCE_ERROR_SHARE * dDistance;
}

bool areSame(double dDistance, double dOther)
{
    return std::fabs(dDistance - dOther) <=
           SAME_HEIGHT + SAME_HEIGHT_SHARE * std::min(dDistance, dOther);
}

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

double FocusJudge::misfit(double dFocusZ) const
{
    return std::fabs(std::fabs(m_dZBefore - dFocusZ) - m_dDistanceBefore);
}

bool FocusJudge::fits(double dDistance) const
{
    return std::min(misfit(dDistance), misfit(-dDistance)) <= error(m_dDistanceBefore);
}

bool FocusJudge::isFromBefore(double dDistance) const
{
    return m_bSeenBefore && m_home.dWeight > 0 && areSame(dDistance, m_dDistanceBefore) &&
           !fits(dDistance) && fits(m_home.dDistance);
}

double FocusJudge::side(double dDistance) const
{
    if (0 != m_parameters.nKnownSide) {
        return m_parameters.nKnownSide < 0 ? -1 : 1;
    }
    if (!m_bSeenBefore || !fits(dDistance) ||
        std::fabs(misfit(dDistance) - misfit(-dDistance)) < LEAST_DIFFERENCE) {
        return m_dSide; // it was not where it was sent, or that makes no difference
    }
    return misfit(dDistance) < misfit(-dDistance) ? 1 : -1;
}

double FocusJudge::refined(double dFocusZ) const
{
    if (!m_bSeenBefore) {
        // No reason to leave a place that the second picture agrees with.
        const bool bAgrees =
            dFocusZ * m_dZBefore > 0 && areSame(std::fabs(dFocusZ), std::fabs(m_dZBefore));
        return bAgrees ? m_dZBefore : dFocusZ;
    }
    const double dWay = dFocusZ - m_dZBefore;
    if (std::fabs(dWay) > NEARLY_THERE || m_dDistanceBefore > NEARLY_THERE) {
        return dFocusZ;
    }
    if (m_dDistanceBefore < SHARP) {
        return m_dZBefore;
    }
    // The nearly sharp picture of the measurement before knows the side better than one from home.
    if (m_near.bKnown && std::fabs(m_dZBefore - m_near.dZ) > SHARP) {
        const auto misfitOf = [&](double dZ) {
            return std::fabs(std::fabs(dZ - m_near.dZ) - m_near.dDistance);
        };
        const double dAbove = m_dZBefore + m_dDistanceBefore;
        const double dBelow = m_dZBefore - m_dDistanceBefore;
        const double dBest = misfitOf(dAbove) < misfitOf(dBelow) ? dAbove : dBelow;
        if (misfitOf(dBest) < 2 * SHARP && std::fabs(misfitOf(dAbove) - misfitOf(dBelow)) > SHARP) {
            return dBest;
        }
    }
    return m_dZBefore + std::copysign(std::min(m_dDistanceBefore, std::fabs(dWay)), dWay);
}

bool FocusJudge::judge(double dSigmaMm, double& dHomed, double dRedness)
{
    m_dZ = 0;
    m_bLookAgain = false;
    Home home{distance(dSigmaMm), dRedness * dRedness};
    if (isFromBefore(home.dDistance)) {
        home = m_home;
    }
    if (home.dDistance > m_parameters.dMaxHeightMm || home.dDistance < TOO_NARROW) {
        m_bSeenBefore = false;
        m_home = Home();
        m_near.bKnown = false;
        return false;
    }
    double dDistance = home.dDistance;
    const bool bSecondLook = m_home.dWeight > 0 && areSame(dDistance, m_home.dDistance);
    const bool bNear = m_bSeenBefore && m_dDistanceBefore < NEARLY_THERE;
    if (bSecondLook && !bNear) {
        dDistance = (dDistance * home.dWeight + m_home.dDistance * m_home.dWeight) /
                    (home.dWeight + m_home.dWeight);
    }
    if (dDistance < m_parameters.dFocusToleranceMm) {
        dHomed = 0;
    } else {
        m_dSide = side(dDistance);
        dHomed = -refined(m_dSide * dDistance);
    }
    m_bLookAgain = !bSecondLook && dDistance > FAR;
    m_home = home;
    m_near = {bNear, m_dZBefore, m_dDistanceBefore};
    m_bSeenBefore = false;
    m_dZ = -dHomed;
    return true;
}

bool FocusJudge::wantsLight() const
{
    return m_bLookAgain;
}
