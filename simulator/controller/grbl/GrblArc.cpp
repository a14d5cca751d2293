// A G2 or G3 arc in Grbl 1.1: its centre, and the chords that it is carried out as.
#include "GrblArc.h"

#include <algorithm>
#include <cmath>

#include "GrblErrors.h"

static const double PI = 3.14159265358979323846;
static const char OFFSETS[] = {'I', 'J', 'K'};

GrblArc::GrblArc(const Point& start, const Point& target, const GrblModes& modes)
    : m_start(start), m_target(target), m_bClockwise(2 == modes.nMotion), m_dUnit(modes.getUnit()),
      m_uA((17 == modes.nPlane)   ? 0
           : (18 == modes.nPlane) ? 2
                                  : 1),
      m_uB((m_uA + 1) % 3), m_uC((m_uA + 2) % 3), m_dX(target[m_uA] - start[m_uA]),
      m_dY(target[m_uB] - start[m_uB])
{
}

int GrblArc::read(GrblWords& words)
{
    if (!words.has(GRBL_AXES[m_uA]) && !words.has(GRBL_AXES[m_uB])) {
        return GRBL_ERROR_ARC_AXES;
    }
    double dRadius = 0;
    return words.take('R', dRadius) ? readRadius(dRadius * m_dUnit) : readOffsets(words);
}

int GrblArc::readRadius(double dRadius)
{
    const double dChord = m_dX * m_dX + m_dY * m_dY;
    const double dHeight = 4 * dRadius * dRadius - dChord;
    if (0 == dChord) {
        return GRBL_ERROR_TARGET;
    }
    if (dHeight < 0) {
        return GRBL_ERROR_RADIUS;
    }
    double dFactor = -std::sqrt(dHeight / dChord);
    dFactor = (!m_bClockwise != (dRadius < 0)) ? -dFactor : dFactor;
    m_dI = 0.5 * (m_dX - m_dY * dFactor);
    m_dJ = 0.5 * (m_dY + m_dX * dFactor);
    return 0;
}

int GrblArc::readOffsets(GrblWords& words)
{
    const bool bI = words.take(OFFSETS[m_uA], m_dI);
    const bool bJ = words.take(OFFSETS[m_uB], m_dJ);
    if (!bI && !bJ) {
        return GRBL_ERROR_NO_OFFSETS;
    }
    m_dI *= m_dUnit;
    m_dJ *= m_dUnit;
    const double dStart = std::hypot(m_dI, m_dJ);
    const double dEnd = std::hypot(m_dX - m_dI, m_dY - m_dJ);
    const double dOff = std::fabs(dStart - dEnd);
    return (dOff > 0.005 && (dOff > 0.5 || dOff > 0.001 * dStart)) ? GRBL_ERROR_TARGET : 0;
}

std::vector<Point> GrblArc::divide(double dTolerance) const
{
    const double dRadius = std::hypot(m_dI, m_dJ);
    const double dFrom = std::atan2(-m_dJ, -m_dI);
    // Between the two radii at once: of a whole circle the difference of two angles may be a turn
    // or none, by the sign of a zero.
    const double dToX = m_dX - m_dI;
    const double dToY = m_dY - m_dJ;
    double dAngle = std::atan2(m_dJ * dToX - m_dI * dToY, -m_dI * dToX - m_dJ * dToY);
    if (m_bClockwise && dAngle >= -1e-9) {
        dAngle -= 2 * PI;
    } else if (!m_bClockwise && dAngle <= 1e-9) {
        dAngle += 2 * PI;
    }
    const double dSegment = 2 * std::sqrt(std::max(dTolerance * (2 * dRadius - dTolerance), 1e-6));
    const int nSegments =
        std::max(1, static_cast<int>(std::floor(std::fabs(dAngle * dRadius) / dSegment)));
    std::vector<Point> vecEnd;
    for (int i = 1; i < nSegments; ++i) {
        const double dShare = static_cast<double>(i) / nSegments;
        const double dAt = dFrom + dAngle * dShare;
        Point end{};
        end[m_uA] = m_start[m_uA] + m_dI + dRadius * std::cos(dAt);
        end[m_uB] = m_start[m_uB] + m_dJ + dRadius * std::sin(dAt);
        end[m_uC] = m_start[m_uC] + (m_target[m_uC] - m_start[m_uC]) * dShare;
        vecEnd.push_back(end);
    }
    vecEnd.push_back(m_target);
    return vecEnd;
}
