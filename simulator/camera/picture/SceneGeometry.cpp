// Where things are in the rendered picture, to compare what was seen with the truth.
#include "SceneGeometry.h"

#include <cmath>

SceneGeometry::SceneGeometry(uint32_t u32Width, uint32_t u32Height, double dK1)
    : m_dHalfWidth(u32Width / 2.0), m_dCentreX((u32Width - 1) / 2.0),
      m_dCentreY((u32Height - 1) / 2.0), m_dScale(u32Width / FIELD_MM), m_dK1(dK1)
{
}

SceneGeometry::Point SceneGeometry::toPixel(const Point& millimetre) const
{
    const double dU = millimetre.dX * m_dScale / m_dHalfWidth;
    const double dV = millimetre.dY * m_dScale / m_dHalfWidth;
    const double dFactor = 1.0 + m_dK1 * (dU * dU + dV * dV);
    return {m_dCentreX + dU * dFactor * m_dHalfWidth, m_dCentreY + dV * dFactor * m_dHalfWidth};
}

SceneGeometry::Point SceneGeometry::toMillimetre(const Point& pixel) const
{
    const double dU = (pixel.dX - m_dCentreX) / m_dHalfWidth;
    const double dV = (pixel.dY - m_dCentreY) / m_dHalfWidth;
    const double dSeen = std::hypot(dU, dV);
    double dIdeal = dSeen;
    for (int i = 0; i < 12; ++i) { // Newton's method; exact to rounding after a few steps
        const double dError = dIdeal * (1.0 + m_dK1 * dIdeal * dIdeal) - dSeen;
        const double dSlope = 1.0 + 3.0 * m_dK1 * dIdeal * dIdeal;
        dIdeal -= dError / dSlope;
    }
    const double dFactor = dSeen > 0 ? dIdeal / dSeen * m_dHalfWidth / m_dScale : 0;
    return {dU * dFactor, dV * dFactor};
}

double SceneGeometry::getPixelsPerMillimetre() const
{
    return m_dScale;
}

double SceneGeometry::sigmaMillimetre(double dZMillimetre)
{
    return SIGMA_MM + BLUR_PER_MM * std::fabs(dZMillimetre);
}

double SceneGeometry::peak(double dZMillimetre)
{
    const double dRatio = SIGMA_MM / sigmaMillimetre(dZMillimetre);
    return dRatio * dRatio;
}
