// "kestrel-arm measure": finds the pilot spot, goes there and focuses.
#include "MeasureCommand.h"

#include <cstdio>

#include "JsonFields.h"
#include "Output.h"

static const int TIMEOUT_MS = 100000; // it may take 90 s

static std::string toText(const nlohmann::json& measurement)
{
    char acText[160];
    const nlohmann::json spot = fieldOf(measurement, "spot");
    if (!spot.is_object()) {
        return "no spot found; nothing was moved\n";
    }
    snprintf(acText, sizeof(acText), "spot at %.2f, %.2f mm from the picture's centre\n",
             numberOf(spot, "x"), numberOf(spot, "y"));
    std::string strText = acText;
    if (!fieldOf(measurement, "height").is_number()) {
        return strText + "no height found; the arm stands there, not in focus\n";
    }
    snprintf(acText, sizeof(acText), "homed laser %.2f mm over its focus; focused\n",
             numberOf(measurement, "height"));
    return strText + acText;
}

MeasureCommand::MeasureCommand(CLI::App& app)
    : StationCommand(app, "measure", "Find the pilot spot, go there and focus.")
{
}

int MeasureCommand::ask(const StationClient& client)
{
    const StationAnswer answer = client.post("/measure", nlohmann::json::object(), TIMEOUT_MS);
    if (!answer.isGood()) {
        return refuse(answer, isJson());
    }
    if (!print(isJson() ? answer.json.dump() + "\n" : toText(answer.json))) {
        return STATUS_UNUSABLE;
    }
    return "focused" == textOf(answer.json, "result") ? STATUS_DONE : STATUS_REFUSED;
}
