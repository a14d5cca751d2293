// What the station tells, in lines for people.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

/** Several lines, each with its end. */
std::string stateToText(const nlohmann::json& state);

/** One line without its end: "level motion, arm homed, beam off, moving". */
std::string stateToLine(const nlohmann::json& state);

/** A journal entry, one line without its end. */
std::string entryToText(const nlohmann::json& entry);

/** One line without its end, at most 79 characters wide: bar, percent, lines, time left, hold. */
std::string jobToLine(const nlohmann::json& job);

/** How a job ended, one line without its end. */
std::string endToText(const nlohmann::json& job);

/** "1:02:03", "2:03" */
std::string secondsToText(double dSeconds);
