// Turns the beam off by the first who can: the station, or else the guard itself.
#include "BeamOff.h"

#include <chrono>
#include <functional>
#include <thread>

#include "JsonFields.h"

static const int STATION_MS = 500; // it answers in 100
static const int GUARD_MS = 2000;
static const auto SEEN_WITHIN = std::chrono::seconds(2);
static const auto LOOK_EVERY = std::chrono::milliseconds(50);

/** Look again until it is true or the time is over. */
static bool waitFor(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + SEEN_WITHIN;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(LOOK_EVERY);
    }
    return true;
}

BeamOff::Result BeamOff::turnOff() const
{
    Result result;
    result.bTaken = byStation(result) || byGuard(result);
    return result;
}

bool BeamOff::byStation(Result& result) const
{
    const StationAnswer answer = m_station.post("/off", nlohmann::json::object(), STATION_MS);
    if (!answer.isGood()) {
        result.strStation = answer.strError;
        result.bRefused = 0 != answer.nStatus;
        return false;
    }
    result.pBy = "station";
    result.bSeenOff = waitFor([this] {
        const StationAnswer state = m_station.get("/state", STATION_MS);
        return true == fieldOf(fieldOf(state.json, "guard"), "beam_seen_off");
    });
    return true;
}

bool BeamOff::byGuard(Result& result) const
{
    nlohmann::json answer;
    if (!m_guard.ask({{"do", "off"}}, GUARD_MS, answer, result.strGuard)) {
        return false;
    }
    if (true != fieldOf(answer, "ok")) {
        result.strGuard = "the guard refused it: " + textOf(answer, "error");
        return false;
    }
    result.pBy = "guard";
    result.bSeenOff = waitFor([this] {
        nlohmann::json state;
        std::string strIgnored;
        return m_guard.ask({{"do", "state"}}, GUARD_MS, state, strIgnored) &&
               true == fieldOf(state, "beam_seen_off");
    });
    return true;
}
