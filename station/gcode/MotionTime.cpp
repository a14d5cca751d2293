// How long a job's moves take.
#include "MotionTime.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

// Grbl 1.1 as it is delivered.
static const double DEVIATION = 0.01;      // mm, $11
static const double ARC_TOLERANCE = 0.002; // mm, $12
static const double IDLE_DELAY = 0.025;    // s, $1
static const size_t LOOK_AHEAD = 16;

static const double NO_LENGTH = 1e-6;
static const double ANY_SPEED = 1e9;

MotionTime::MotionTime(double dAcceleration, double dRapidFeed)
    : m_dAcceleration(dAcceleration), m_dRapidSpeed(dRapidFeed / 60)
{
}

void MotionTime::add(const GcodeMove& move)
{
    if (move.nMotion >= 2) {
        addArc(move);
    } else {
        addLine(move.from, move.to, move.dFeed / 60, 0 == move.nMotion && m_dRapidSpeed > 0);
    }
}

void MotionTime::addArc(const GcodeMove& move)
{
    const double dSign = (2 == move.nMotion) ? -1 : 1;
    const double dWay = move.dRadius * move.dTravel;
    const double dChord =
        2 * std::sqrt(std::max(ARC_TOLERANCE * (2 * move.dRadius - ARC_TOLERANCE), 1e-6));
    const double dChords = std::clamp(std::floor(dWay / dChord), 1.0, 1e9);
    MachinePoint from = move.from;
    const auto uChords = static_cast<uint32_t>(dChords);
    for (uint32_t u = 1; u < uChords; ++u) {
        const double dShare = u / dChords;
        const double dAngle = move.dStart + dSign * move.dTravel * dShare;
        const MachinePoint to = {move.dCentreX + move.dRadius * std::cos(dAngle),
                                 move.dCentreY + move.dRadius * std::sin(dAngle),
                                 move.from[2] + (move.to[2] - move.from[2]) * dShare};
        addLine(from, to, move.dFeed / 60, false);
        from = to;
    }
    addLine(from, move.to, move.dFeed / 60, false);
}

void MotionTime::addLine(const MachinePoint& from, const MachinePoint& to, double dSpeed,
                         bool bRapid)
{
    Block block{{to[0] - from[0], to[1] - from[1], to[2] - from[2]}, 0, 0, dSpeed, 0, 0};
    block.dLength = std::sqrt(block.unit[0] * block.unit[0] + block.unit[1] * block.unit[1] +
                              block.unit[2] * block.unit[2]);
    if (block.dLength < NO_LENGTH) {
        return;
    }
    double dShare = 0; // of the axis that has to go the longest way
    for (double& dUnit : block.unit) {
        dUnit /= block.dLength;
        dShare = std::max(dShare, std::fabs(dUnit));
    }
    block.dAcceleration = m_dAcceleration / dShare;
    if (bRapid) {
        block.dSpeed = m_dRapidSpeed / dShare;
    } else if (m_dRapidSpeed > 0) {
        block.dSpeed = std::min(block.dSpeed, m_dRapidSpeed / dShare);
    }
    block.dJunction = m_deqBlock.empty() ? 0 : getCornerSpeed(m_deqBlock.back(), block);
    m_deqBlock.push_back(block);
    if (m_deqBlock.size() > LOOK_AHEAD) {
        plan();
        passFirst();
    }
}

double MotionTime::getCornerSpeed(const Block& former, const Block& block)
{
    const double dCosine = -(former.unit[0] * block.unit[0] + former.unit[1] * block.unit[1] +
                             former.unit[2] * block.unit[2]);
    if (dCosine > 0.999999) {
        return 0; // back the way it came
    }
    if (dCosine < -0.999999) {
        return ANY_SPEED; // straight on
    }
    const double dSine = std::sqrt((1 - dCosine) / 2); // of half the angle between the two
    return std::sqrt(block.dAcceleration * DEVIATION * dSine / (1 - dSine));
}

/** From the last one back: each may begin only so fast that it can end as slowly as the next. */
void MotionTime::plan()
{
    double dExit = 0;
    for (size_t u = m_deqBlock.size() - 1; u > 0; --u) {
        Block& block = m_deqBlock[u];
        const double dReach = std::sqrt(dExit * dExit + 2 * block.dAcceleration * block.dLength);
        block.dEntry = std::min({block.dJunction, dReach, block.dSpeed, m_deqBlock[u - 1].dSpeed});
        dExit = block.dEntry;
    }
}

void MotionTime::passFirst()
{
    const Block block = m_deqBlock.front();
    m_deqBlock.pop_front();
    const double dA = block.dAcceleration;
    const double dFrom = std::min(m_dSpeed, block.dSpeed);
    const double dReach = std::sqrt(dFrom * dFrom + 2 * dA * block.dLength);
    const double dTo = m_deqBlock.empty() ? 0 : std::min(m_deqBlock.front().dEntry, dReach);
    const double dPeak =
        std::min(block.dSpeed, std::sqrt(dA * block.dLength + (dFrom * dFrom + dTo * dTo) / 2));
    const double dRamps = (2 * dPeak * dPeak - dFrom * dFrom - dTo * dTo) / (2 * dA);
    m_dSeconds += (2 * dPeak - dFrom - dTo) / dA;
    m_dSeconds += std::max(0.0, block.dLength - dRamps) / dPeak;
    m_dSpeed = dTo;
}

void MotionTime::stop(double dSeconds)
{
    m_dSeconds += m_deqBlock.empty() ? 0 : IDLE_DELAY;
    (void)finish();
    m_dSeconds += dSeconds;
}

double MotionTime::finish()
{
    if (!m_deqBlock.empty()) {
        plan();
    }
    while (!m_deqBlock.empty()) {
        passFirst();
    }
    m_dSpeed = 0;
    return m_dSeconds;
}
