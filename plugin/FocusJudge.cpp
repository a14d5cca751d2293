// Turns the sharpness of the spot into the way to the focus.
#include "FocusJudge.h"

#include <algorithm>

namespace {

// A correction to the wrong side doubles the height, to the right one leaves nothing of it; one
// that was not carried out leaves it as it was.
const double WRONG_SIDE_GROWTH = 1.5;

} // namespace

FocusJudge::FocusJudge(const Parameters& parameters)
    : m_parameters(parameters), m_dSide(parameters.dFirstSide)
{
}

double FocusJudge::sharpness(double dSigmaMm) const
{
    return std::min(m_parameters.dFocusedSigmaMm / dSigmaMm, 1.0);
}

double FocusJudge::correction(double dSigmaMm)
{
    const double dSigmaRatio = 1 / sharpness(dSigmaMm);
    const double dHeight =
        (dSigmaRatio - 1) * m_parameters.dFocusedSigmaMm / m_parameters.dBlurPerMm;
    if (dHeight < m_parameters.dFocusToleranceMm) {
        m_dLastHeight = 0;
        return 0;
    }
    if (m_dLastHeight > 0 && dHeight > m_dLastHeight * WRONG_SIDE_GROWTH) {
        m_dSide = -m_dSide;
    }
    m_dLastHeight = dHeight;
    return -m_dSide * dHeight;
}
