// The motion of a controller that speaks Grbl 1.1: queued blocks, carried out with acceleration.
#pragma once

#include <cstddef>
#include <deque>

#include "Motion.h"

enum SPINDLE_E
{
    SPINDLE_OFF,
    SPINDLE_CONSTANT, // M3
    SPINDLE_DYNAMIC   // M4: in laser mode the power follows the speed
};

/** A straight line. Millimetres and seconds. */
struct GrblBlock
{
    Point target{};
    double dSpeed = 0;   // as programmed; the axes' limits are kept besides
    bool bRapid = false; // at the axes' limits
    SPINDLE_E eSpindle = SPINDLE_OFF;
    double dPower = 0; // 0 where the laser has to be off
};

/**
 * Trapezoids over straight lines: every block begins and ends at a speed that its junctions allow
 * and that leaves room to stop at the end of the last one.
 *
 * Has no clock: advance() gets the time that has passed. Not thread-safe.
 */
class GrblPlanner
{
public:
    static constexpr size_t BLOCKS = 15; // that wait while one is carried out

    /** Per axis, in mm/s and mm/s^2; dDeviation in mm says how fast corners are taken. */
    void setLimits(const Point& maxSpeed, const Point& acceleration, double dDeviation);

    /** Shares of the programmed and of the rapid speed, 1 is the whole. */
    void setOverrides(double dFeed, double dRapid);

    /** The caller looks at isFull() first. A block without length is dropped. */
    void queue(const GrblBlock& block);

    void advance(double dSeconds);

    /** Slow down to a stop, keeping the rest. */
    void hold()
    {
        m_bHeld = true;
    }
    void resume()
    {
        m_bHeld = false;
    }

    /** Stop at once and forget everything. */
    void clear();

    bool isEmpty() const
    {
        return m_deqBlock.empty();
    }
    bool isFull() const
    {
        return m_deqBlock.size() > BLOCKS;
    }
    size_t getFree() const
    {
        return isFull() ? 0 : BLOCKS - m_deqBlock.size();
    }
    bool isMoving() const
    {
        return !isEmpty() && !(m_bHeld && m_dSpeed <= 0);
    }

    double getSpeed() const
    {
        return m_dSpeed;
    }
    const Point& getPosition() const
    {
        return m_position;
    }

    /** Put the head there; only while empty. */
    void setPosition(const Point& position)
    {
        m_position = position;
    }
    const Point& getDestination() const
    {
        return isEmpty() ? m_position : m_deqBlock.back().block.target;
    }

    /** What is carried out; only while not empty. */
    const GrblBlock& getCurrent() const
    {
        return m_deqBlock.front().block;
    }

    /** Share of the current block's programmed speed that the head has now. */
    double getSpeedShare() const;

    /** Seconds until the speed changes its course or a block ends; negative when nothing moves. */
    double getNextChange() const;

    /** Seconds until the head stands, while it slows down for that; else negative. */
    double getTimeToStop() const;

    /** The acceleration of the current block. */
    double getAcceleration() const
    {
        return m_deqBlock.front().dAcceleration;
    }

private:
    struct Entry
    {
        GrblBlock block;
        Point unit;
        double dLeft; // millimetres
        double dAcceleration;
        double dLimit;    // of the speed, by the axes
        double dJunction; // greatest speed at its beginning, by the corner alone
        double dEntry;    // planned speed at its beginning
    };

    /** A stretch of constant acceleration. */
    struct Phase
    {
        double dAcceleration;
        double dSeconds;
    };

    double getNominal(const Entry& entry) const;
    double getJunction(const Entry& former, const Entry& entry) const;
    double getExit() const;
    Phase getPhase() const;
    void plan();

    Point m_maxSpeed{{1, 1, 1}};
    Point m_acceleration{{1, 1, 1}};
    double m_dDeviation = 0;
    double m_dFeedShare = 1;
    double m_dRapidShare = 1;
    bool m_bHeld = false;
    double m_dSpeed = 0;
    Point m_position{};
    std::deque<Entry> m_deqBlock; // at most BLOCKS and the current one
};
