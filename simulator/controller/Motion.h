// The virtual arm's motion: where the head is at any moment while moves are carried out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>

/** A point of the arm in millimetres: x, y, z. */
using Point = std::array<double, 3>;

/**
 * Carries out queued moves one after the other, in a straight line at constant speed.
 *
 * Time comes in from outside, in microseconds of any clock that never runs backwards; not
 * thread-safe.
 */
class Motion
{
public:
    static const size_t MAX_QUEUED = 16; // moves that wait while one is carried out

    /**
     * @param dSpeedUp    the arm moves that many times faster than the feed rate says
     * @param s64SettleUs the least time that a positioning move takes, not sped up
     */
    Motion(double dSpeedUp, int64_t s64SettleUs) : m_dSpeedUp(dSpeedUp), m_s64SettleUs(s64SettleUs)
    {
    }

    /**
     * Queue a move; the caller looks at isFull() first.
     * @param dFeed  millimetres per minute
     * @param bPositioning  counted by advance() when it ends
     */
    void queueMove(const Point& target, double dFeed, bool bPositioning);

    /** Let the time pass up to s64NowUs. @return positioning moves that ended in it */
    unsigned advance(int64_t s64NowUs);

    /** Stand still, keeping the queue, or go on. */
    void setHeld(bool bHeld)
    {
        m_bHeld = bHeld;
    }

    /** Forget all moves; the head stays where it is. */
    void clear();

    bool isFull() const
    {
        return m_deqMove.size() > MAX_QUEUED;
    }
    bool isIdle() const
    {
        return m_deqMove.empty();
    }

    const Point& getPosition() const
    {
        return m_position;
    }

    /** Where the head will be after all queued moves. */
    const Point& getDestination() const;

    /** Put the head there at once. */
    void setPosition(const Point& position)
    {
        m_position = position;
    }

    /** Microseconds until the current move ends; -1 when nothing moves. */
    int64_t getRemainingUs() const;

private:
    struct Move
    {
        Point target;
        int64_t s64LeftUs;
        double dFeed;
        bool bPositioning;
        bool bTimed; // s64LeftUs is known; that takes the starting point
    };

    void timeFront();

    double m_dSpeedUp;
    int64_t m_s64SettleUs;
    int64_t m_s64LastUs = 0;
    bool m_bHeld = false;
    Point m_position{};
    std::deque<Move> m_deqMove; // at most MAX_QUEUED and the current one
};
