// The numbered settings ("$n=value") of a controller that speaks Grbl 1.1.
#pragma once

#include <map>
#include <string>

/** Values in the units of the published list: microseconds, milliseconds, mm, mm/min, mm/s^2. */
class GrblSettings
{
public:
    static constexpr int IDLE_DELAY_MS = 1;
    static constexpr int STATUS_REPORT = 10; // bit 0: machine positions, bit 1: buffers
    static constexpr int JUNCTION_DEVIATION = 11;
    static constexpr int ARC_TOLERANCE = 12;
    static constexpr int SOFT_LIMITS = 20;
    static constexpr int HOMING = 22;
    static constexpr int HOMING_DIRECTION = 23;
    static constexpr int HOMING_FEED = 24;
    static constexpr int HOMING_SEEK = 25;
    static constexpr int HOMING_DEBOUNCE_MS = 26;
    static constexpr int HOMING_PULL_OFF = 27;
    static constexpr int MAX_POWER = 30;
    static constexpr int LASER_MODE = 32;
    static constexpr int STEPS = 100; // and the next two, as with all below
    static constexpr int MAX_RATE = 110;
    static constexpr int ACCELERATION = 120;
    static constexpr int TRAVEL = 130;

    GrblSettings();

    /** @return 0 or the code of "error:N": 3 unknown, 4 negative, 6 pulse too short, 10 no homing
     */
    int set(int nNumber, double dValue);

    double get(int nNumber) const
    {
        return m_mapValue.at(nNumber);
    }
    bool isOn(int nNumber) const
    {
        return 0 != get(nNumber);
    }

    /** "$0=10\r\n" and so on, the answer to "$$" without its "ok". */
    std::string format() const;

    /** Back to what a new controller has. */
    void restore();

private:
    std::map<int, double> m_mapValue;
};
