// The motion of a controller that speaks Grbl 1.1: queued blocks, carried out with acceleration.
#include "GrblPlanner.h"

#include <algorithm>
#include <cmath>

static const double NO_LENGTH = 1e-6; // millimetres
static const double NO_TIME = 1e-9;   // seconds
static const double NO_SPEED = 1e-9;
static const double ANY_SPEED = 1e9;

void GrblPlanner::setLimits(const Point& maxSpeed, const Point& acceleration, double dDeviation)
{
    m_maxSpeed = maxSpeed;
    m_acceleration = acceleration;
    m_dDeviation = dDeviation;
}

void GrblPlanner::setOverrides(double dFeed, double dRapid)
{
    m_dFeedShare = dFeed;
    m_dRapidShare = dRapid;
    plan();
}

void GrblPlanner::queue(const GrblBlock& block)
{
    Entry entry{block, {}, 0, ANY_SPEED, ANY_SPEED, 0, 0};
    const Point& start = getDestination();
    for (size_t i = 0; i < start.size(); ++i) {
        entry.unit[i] = block.target[i] - start[i];
        entry.dLeft += entry.unit[i] * entry.unit[i];
    }
    entry.dLeft = std::sqrt(entry.dLeft);
    if (entry.dLeft < NO_LENGTH) {
        return;
    }
    for (size_t i = 0; i < start.size(); ++i) {
        entry.unit[i] /= entry.dLeft;
        if (const double dShare = std::fabs(entry.unit[i]); dShare > NO_LENGTH) {
            entry.dLimit = std::min(entry.dLimit, m_maxSpeed[i] / dShare);
            entry.dAcceleration = std::min(entry.dAcceleration, m_acceleration[i] / dShare);
        }
    }
    entry.dJunction = isEmpty() ? 0 : getJunction(m_deqBlock.back(), entry);
    m_deqBlock.push_back(entry);
    plan();
}

double GrblPlanner::getJunction(const Entry& former, const Entry& entry) const
{
    double dCosine = 0; // of the angle between the one block turned round and the other
    for (size_t i = 0; i < entry.unit.size(); ++i) {
        dCosine -= former.unit[i] * entry.unit[i];
    }
    if (dCosine > 0.999999) {
        return 0; // back the way it came
    }
    if (dCosine < -0.999999) {
        return ANY_SPEED; // straight on
    }
    const double dSine = std::sqrt((1 - dCosine) / 2); // of half the angle
    return std::sqrt(entry.dAcceleration * m_dDeviation * dSine / (1 - dSine));
}

double GrblPlanner::getNominal(const Entry& entry) const
{
    if (entry.block.bRapid) {
        return entry.dLimit * m_dRapidShare;
    }
    return std::min(entry.block.dSpeed * m_dFeedShare, entry.dLimit);
}

/**
 * From the last block back: each may begin only as fast as lets it end at the speed at which the
 * next begins.
 */
void GrblPlanner::plan()
{
    double dExit = 0;
    for (size_t i = m_deqBlock.size(); i > 1; --i) {
        Entry& entry = m_deqBlock[i - 1];
        const double dReach = std::sqrt(dExit * dExit + 2 * entry.dAcceleration * entry.dLeft);
        entry.dEntry =
            std::min({entry.dJunction, dReach, getNominal(entry), getNominal(m_deqBlock[i - 2])});
        dExit = entry.dEntry;
    }
}

double GrblPlanner::getExit() const
{
    return (m_deqBlock.size() > 1) ? m_deqBlock[1].dEntry : 0;
}

GrblPlanner::Phase GrblPlanner::getPhase() const
{
    const Entry& entry = m_deqBlock.front();
    const double dA = entry.dAcceleration;
    const double dSpeed = m_dSpeed;
    const double dLeft = entry.dLeft;
    const auto slowDown = [&](double dTo) {
        const double dEndSquare = dSpeed * dSpeed - 2 * dA * dLeft;
        const double dTime = (dSpeed - dTo) / dA;
        return (dEndSquare > dTo * dTo) ? Phase{-dA, (dSpeed - std::sqrt(dEndSquare)) / dA}
                                        : Phase{-dA, dTime};
    };
    if (m_bHeld) {
        return slowDown(0);
    }
    const double dNominal = getNominal(entry);
    if (dSpeed > dNominal + NO_SPEED) {
        return slowDown(dNominal);
    }
    const double dExit = std::min(getExit(), dNominal);
    const double dStopLength = (dSpeed * dSpeed - dExit * dExit) / (2 * dA);
    if (dSpeed > dExit && dLeft <= dStopLength + NO_LENGTH / 10) {
        const double dSeconds = 2 * dLeft / (dSpeed + dExit); // ends exactly there
        return {(dExit - dSpeed) / std::max(dSeconds, NO_TIME), dSeconds};
    }
    if (dSpeed < dNominal - NO_SPEED) {
        const double dPeak =
            std::min(dNominal, std::sqrt(dA * dLeft + (dSpeed * dSpeed + dExit * dExit) / 2));
        const double dEnd = (std::sqrt(dSpeed * dSpeed + 2 * dA * dLeft) - dSpeed) / dA;
        return {dA, std::min((dPeak - dSpeed) / dA, dEnd)};
    }
    return {0, (dLeft - std::max(0.0, dStopLength)) / dSpeed};
}

void GrblPlanner::advance(double dSeconds)
{
    while (isMoving() && dSeconds > 0) {
        Entry& entry = m_deqBlock.front();
        const Phase phase = getPhase();
        const double dTime = std::min(dSeconds, phase.dSeconds);
        const double dWay = m_dSpeed * dTime + phase.dAcceleration * dTime * dTime / 2;
        dSeconds -= dTime;
        m_dSpeed = std::max(0.0, m_dSpeed + phase.dAcceleration * dTime);
        if (m_bHeld && m_dSpeed < NO_SPEED) {
            m_dSpeed = 0;
        }
        entry.dLeft -= dWay;
        for (size_t i = 0; i < m_position.size(); ++i) {
            m_position[i] = entry.block.target[i] - entry.unit[i] * std::max(0.0, entry.dLeft);
        }
        if (entry.dLeft < NO_LENGTH / 10) {
            m_position = entry.block.target;
            m_deqBlock.pop_front();
            m_dSpeed = isEmpty() ? 0 : m_dSpeed;
        } else if (phase.dSeconds < NO_TIME && !m_bHeld) {
            entry.dLeft -= NO_LENGTH / 100; // rounding must not stop the head for good
        }
    }
}

void GrblPlanner::clear()
{
    m_deqBlock.clear();
    m_dSpeed = 0;
    m_bHeld = false;
}

double GrblPlanner::getSpeedShare() const
{
    const double dProgrammed = m_deqBlock.front().block.dSpeed;
    return (dProgrammed > 0) ? std::min(1.0, m_dSpeed / dProgrammed) : 0;
}

double GrblPlanner::getNextChange() const
{
    return isMoving() ? getPhase().dSeconds : -1;
}

double GrblPlanner::getTimeToStop() const
{
    if (!isMoving()) {
        return -1;
    }
    const Phase phase = getPhase();
    const bool bToStop =
        phase.dAcceleration < 0 && m_dSpeed + phase.dAcceleration * phase.dSeconds < 1e-6;
    return bToStop ? phase.dSeconds : -1;
}
