// The virtual arm's motion: where the head is at any moment while moves are carried out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <utility>
#include <vector>

/** A point of the arm in millimetres: x, y, z. */
using Point = std::array<double, 3>;

/** The laser as it was told to be; light comes out when it is on and has power. */
struct Laser
{
    bool bOn = false;
    double dPower = 0;
};

/** A stretch that the beam has gone over, straight and at an even speed, or a place where it stood.
 */
struct BeamStroke
{
    Point from{};
    Point to{};
    double dEnergy = 0; // power (S word) times seconds, of the job's time where moves are sped up
};

/** Gets each stretch as soon as it is over, on the thread that lets the time pass. */
using BeamSink = std::function<void(const BeamStroke&)>;

/**
 * Carries out what is queued one after the other: moves, in a straight line at constant speed,
 * dwells and what the laser is told.
 *
 * Time comes in from outside, in microseconds of any clock that never runs backwards; not
 * thread-safe.
 */
class Motion
{
public:
    static const size_t MAX_QUEUED = 16; // what waits while a move is carried out

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

    /** Stand still for so long, not sped up. */
    void queueDwell(double dSeconds);

    /** Switch the laser behind all that is queued; at once when nothing is queued and not held. */
    void queueLaser(const Laser& laser);

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
    bool isMoving() const
    {
        return !m_bHeld && !m_deqMove.empty() && KIND_MOVE == m_deqMove.front().eKind;
    }

    /** What the laser was told last. */
    const Laser& getLaser() const
    {
        return m_laser;
    }

    /** Switch the laser at once. */
    void setLaser(const Laser& laser);

    /**
     * Report to the sink what the laser goes over while it is on, also while held; to nobody at
     * first.
     */
    void onBeam(BeamSink sink)
    {
        m_beamSink = std::move(sink);
    }

    /** Laser and motion from a moment on that has passed. */
    struct Change
    {
        int64_t s64AtUs;
        Laser laser;
        bool bMoving;
    };

    /** What has changed since the last call, in order. */
    std::vector<Change> takeChanges();

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
    enum KIND_E
    {
        KIND_MOVE,
        KIND_DWELL,
        KIND_LASER
    };

    struct Move
    {
        KIND_E eKind;
        Point target;
        int64_t s64LeftUs;
        double dFeed;
        bool bPositioning;
        bool bTimed; // s64LeftUs is known; that takes the starting point
        Laser laser; // with KIND_LASER
    };

    void timeFront();
    void noteChange(int64_t s64AtUs);
    void tellBeam(const Point& from, double dSeconds) const;

    double m_dSpeedUp;
    int64_t m_s64SettleUs;
    int64_t m_s64LastUs = 0;
    bool m_bHeld = false;
    Point m_position{};
    Laser m_laser;
    BeamSink m_beamSink;
    std::vector<Change> m_vecChange;
    std::deque<Move> m_deqMove; // MAX_QUEUED, the current one and what its line adds
};
