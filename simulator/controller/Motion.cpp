// The virtual arm's motion: where the head is at any moment while moves are carried out.
#include "Motion.h"

#include <algorithm>
#include <cmath>
#include <utility>

void Motion::queueMove(const Point& target, double dFeed, bool bPositioning)
{
    m_deqMove.push_back({KIND_MOVE, target, 0, dFeed, bPositioning, false, {}});
    timeFront();
}

void Motion::queueDwell(double dSeconds)
{
    const auto s64LeftUs = static_cast<int64_t>(dSeconds * 1e6);
    m_deqMove.push_back({KIND_DWELL, getDestination(), s64LeftUs, 0, false, true, {}});
}

void Motion::queueLaser(const Laser& laser)
{
    if (m_deqMove.empty() && !m_bHeld) {
        setLaser(laser);
        return;
    }
    m_deqMove.push_back({KIND_LASER, getDestination(), 0, 0, false, true, laser});
}

void Motion::setLaser(const Laser& laser)
{
    m_laser = laser;
    noteChange(m_s64LastUs);
}

void Motion::noteChange(int64_t s64AtUs)
{
    m_vecChange.push_back({s64AtUs, m_laser, isMoving()});
}

std::vector<Motion::Change> Motion::takeChanges()
{
    return std::exchange(m_vecChange, {});
}

unsigned Motion::advance(int64_t s64NowUs)
{
    int64_t s64LeftUs = std::max<int64_t>(0, s64NowUs - m_s64LastUs);
    m_s64LastUs = std::max(m_s64LastUs, s64NowUs);
    unsigned uEnded = 0;
    while (!m_bHeld && !m_deqMove.empty()) {
        Move& move = m_deqMove.front();
        const Point from = m_position;
        const double dJobSeconds = static_cast<double>(std::min(s64LeftUs, move.s64LeftUs)) / 1e6 *
                                   (KIND_MOVE == move.eKind ? m_dSpeedUp : 1);
        if (s64LeftUs < move.s64LeftUs) {
            const double dShare =
                static_cast<double>(s64LeftUs) / static_cast<double>(move.s64LeftUs);
            for (size_t i = 0; i < m_position.size(); ++i) {
                m_position[i] += (move.target[i] - m_position[i]) * dShare;
            }
            move.s64LeftUs -= s64LeftUs;
            tellBeam(from, dJobSeconds);
            return uEnded;
        }
        s64LeftUs -= move.s64LeftUs;
        m_position = move.target;
        tellBeam(from, dJobSeconds);
        uEnded += move.bPositioning ? 1 : 0;
        const bool bLaser = KIND_LASER == move.eKind;
        m_laser = bLaser ? move.laser : m_laser;
        m_deqMove.pop_front();
        if (m_deqMove.empty() || KIND_LASER != m_deqMove.front().eKind) {
            noteChange(m_s64LastUs - s64LeftUs);
        }
        timeFront();
    }
    tellBeam(m_position, static_cast<double>(s64LeftUs) / 1e6); // it stands
    return uEnded;
}

void Motion::tellBeam(const Point& from, double dSeconds) const
{
    if (m_beamSink && m_laser.bOn && m_laser.dPower > 0 && dSeconds > 0) {
        m_beamSink({from, m_position, m_laser.dPower * dSeconds});
    }
}

void Motion::clear()
{
    m_deqMove.clear();
}

const Point& Motion::getDestination() const
{
    return m_deqMove.empty() ? m_position : m_deqMove.back().target;
}

int64_t Motion::getRemainingUs() const
{
    return (m_bHeld || m_deqMove.empty()) ? -1 : m_deqMove.front().s64LeftUs;
}

void Motion::timeFront()
{
    if (m_deqMove.empty() || m_deqMove.front().bTimed) {
        return;
    }
    Move& move = m_deqMove.front();
    double dSquares = 0;
    for (size_t i = 0; i < m_position.size(); ++i) {
        dSquares += (move.target[i] - m_position[i]) * (move.target[i] - m_position[i]);
    }
    const double dMinutes = sqrt(dSquares) / move.dFeed / m_dSpeedUp;
    move.s64LeftUs = static_cast<int64_t>(dMinutes * 60e6);
    if (move.bPositioning) {
        move.s64LeftUs = std::max(move.s64LeftUs, m_s64SettleUs);
    }
    move.bTimed = true;
}
