// A homing run of Grbl 1.1: how long it takes, where the head is meanwhile, where it ends.
#pragma once

#include <cstdint>

#include "GrblSettings.h"
#include "Motion.h"

/** Has no clock: times come in, in microseconds. */
class GrblHoming
{
public:
    /**
     * The switches are where the machine position is 0, or at the travel's other end.
     * @param from      where the head really is
     * @param dSpeedUp  the arm moves that many times faster
     */
    void begin(const Point& from, int64_t s64NowUs, const GrblSettings& settings, double dSpeedUp);

    void end()
    {
        m_s64EndUs = -1;
    }

    bool isActive() const
    {
        return m_s64EndUs >= 0;
    }

    /** When it will be whole; -1 while none is under way. */
    int64_t getEndUs() const
    {
        return m_s64EndUs;
    }

    /** Where the head really is: straight on its way, not axis by axis. While active. */
    Point getPosition(int64_t s64NowUs) const;

    /** The machine position that a whole run ends at. */
    static Point getHome(const GrblSettings& settings);

private:
    Point m_from{};
    int64_t m_s64FromUs = 0;
    int64_t m_s64EndUs = -1;
};
