// What happens at the arm, as the journal's lines.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

/** The guard's notice. */
std::string tellEvent(const nlohmann::json& event);

/** What a measurement came to. @param measurement  docs/api.yaml's Measurement */
std::string tellMeasurement(const nlohmann::json& measurement);
