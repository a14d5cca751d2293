// All that is known of the arm and of what works with it.
#pragma once

#include <atomic>
#include <string>

#include <nlohmann/json.hpp>

#include "Configuration.h"

class ArmTerminal;
class GuardLink;
class JobRun;
class PictureWatch;
class RestartOffer;

/** Tells it as docs/api.yaml's State. Any thread. */
class StateReport
{
public:
    /** What it is told from; all borrowed. */
    struct Sources
    {
        const Configuration& guardConfiguration;
        const std::string& strNoLimits; // why that is of no use; empty: it is
        const PictureWatch& pictures;
        const ArmTerminal& terminal;
        const GuardLink& guard;
        const JobRun& run;
        const RestartOffer& restart;
        const std::atomic<bool>& bAlarm;
    };

    /** The station starts now. */
    explicit StateReport(const Sources& sources);
    StateReport(const StateReport&) = delete;
    StateReport& operator=(const StateReport&) = delete;

    nlohmann::json describe() const;

private:
    nlohmann::json describeGuard() const;
    nlohmann::json describeMissing() const;

    const Sources m_sources;
    const std::string m_strStarted;
};
