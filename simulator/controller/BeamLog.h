// What the virtual controller's laser beam does, and since when.
#pragma once

#include <cstdint>
#include <string>

#include "ControllerJournal.h"

/** The beam at a moment. */
struct Beam
{
    bool bOn = false;     // light comes out
    double dPower = 0;    // as programmed, in the language's unit (S word)
    bool bMoving = false; // the head moves
};

/**
 * Keeps the beam's present state and writes each change to the journal:
 *
 *     1.204511 beam on=1 power=500 moving=1
 *
 * Not thread-safe; times are microseconds of the controller's clock, never running backwards.
 */
class BeamLog
{
public:
    explicit BeamLog(ControllerJournal& journal) : m_journal(journal) {}

    /** What the beam does from s64AtUs on; recorded when it differs. */
    void update(int64_t s64AtUs, const Beam& beam);

    const Beam& get() const
    {
        return m_beam;
    }

    /**
     * One line for people and tests, times in seconds of the journal: "since" is the last change
     * of light or power, "moving-since" that of the motion.
     */
    std::string describe(int64_t s64NowUs) const;

private:
    ControllerJournal& m_journal;
    Beam m_beam;
    int64_t m_s64SinceUs = 0;
    int64_t m_s64MovingSinceUs = 0;
};
