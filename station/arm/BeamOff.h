// Turns the beam off by the first who can: the station, or else the guard itself.
#pragma once

#include <string>

#include "GuardClient.h"
#include "StationClient.h"

/** No state of its own; any thread. */
class BeamOff
{
public:
    /** Both are copied. */
    BeamOff(StationClient station, GuardClient guard)
        : m_station(std::move(station)), m_guard(std::move(guard))
    {
    }

    struct Result
    {
        bool bTaken = false;       // somebody has taken it
        bool bRefused = false;     // the station answered and did not
        const char* pBy = nullptr; // "station" or "guard", when taken
        bool bSeenOff = false;     // the controller has shown it
        std::string strStation;    // why not by the station, in a sentence
        std::string strGuard;      // and why not by the guard
    };

    /**
     * Ask for it, and wait up to two seconds for the controller to show it. Blocks for two seconds
     * more where the station has to be given up.
     */
    Result turnOff() const;

private:
    bool byStation(Result& result) const;
    bool byGuard(Result& result) const;

    StationClient m_station;
    GuardClient m_guard;
};
