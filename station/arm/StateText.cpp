// What the station tells, in lines for people.
#include "StateText.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "JsonFields.h"

static const int BAR = 20;
static const size_t WIDTH = 79;

namespace {

std::string line(const char* pName, const std::string& strText)
{
    std::string strName = pName;
    strName.resize(12, ' ');
    return strName + strText + "\n";
}

/** Null is not known. */
std::string choose(const nlohmann::json& field, const char* pTrue, const char* pFalse)
{
    if (!field.is_boolean()) {
        return "not known";
    }
    return field.get<bool>() ? pTrue : pFalse;
}

std::string count(const nlohmann::json& object, const char* pKey)
{
    return std::to_string(std::llround(numberOf(object, pKey)));
}

std::string cameraToText(const nlohmann::json& camera)
{
    if (true != fieldOf(camera, "present")) {
        return fieldOf(camera, "age_ms").is_null()
                   ? "no picture yet"
                   : "no picture for " + secondsToText(numberOf(camera, "age_ms") / 1000);
    }
    return count(camera, "width") + " x " + count(camera, "height") + ", last picture " +
           count(camera, "age_ms") + " ms ago";
}

std::string levelOf(const nlohmann::json& state)
{
    const nlohmann::json guard = fieldOf(state, "guard");
    return true == fieldOf(guard, "present") ? textOf(guard, "level") : "not known: no guard";
}

/** What was seen before a job says nothing about the beam in it. */
std::string beamOf(const nlohmann::json& guard)
{
    if ("job" == textOf(guard, "level")) {
        return true == fieldOf(guard, "paused") ? "off, paused" : "may be on";
    }
    return choose(fieldOf(guard, "beam_seen_off"), "seen off", "not seen off");
}

} // namespace

std::string secondsToText(double dSeconds)
{
    const long long nAll = std::llround(std::max(0.0, dSeconds));
    char acText[40];
    if (nAll >= 3600) {
        snprintf(acText, sizeof(acText), "%lld:%02lld:%02lld", nAll / 3600, nAll / 60 % 60,
                 nAll % 60);
    } else {
        snprintf(acText, sizeof(acText), "%lld:%02lld", nAll / 60, nAll % 60);
    }
    return acText;
}

std::string jobToLine(const nlohmann::json& job)
{
    const double dPercent = std::clamp(numberOf(job, "percent"), 0.0, 100.0);
    std::string strBar(BAR, '-');
    std::fill_n(strBar.begin(), std::lround(dPercent / 100 * BAR), '#');
    char acPercent[20];
    snprintf(acPercent, sizeof(acPercent), "%3.0f %%", std::floor(dPercent));
    std::string strLine = "[" + strBar + "] " + acPercent + "  line " + count(job, "line") +
                          " of " + count(job, "lines");
    if ("held" == textOf(job, "status")) {
        strLine += "  held by the " + textOf(job, "held_by");
    } else if (fieldOf(job, "seconds_left").is_number()) {
        strLine += "  " + secondsToText(numberOf(job, "seconds_left")) + " left";
    }
    return strLine.substr(0, WIDTH);
}

std::string endToText(const nlohmann::json& job)
{
    const std::string strReason = textOf(job, "reason");
    const nlohmann::json restart = fieldOf(job, "restart");
    std::string strText = textOf(job, "name") + " " + textOf(job, "result") + " at line " +
                          count(job, "line") + " of " + count(job, "lines") +
                          (strReason.empty() ? "" : ": " + strReason);
    if (fieldOf(restart, "line").is_number()) {
        strText += "; goes on with \"run --line " + count(restart, "line") + "\"";
    }
    if (fieldOf(restart, "unsure_from").is_number()) {
        strText += ", but lines from " + count(restart, "unsure_from") +
                   " on may not have been carried out";
    }
    return strText;
}

std::string entryToText(const nlohmann::json& entry)
{
    return textOf(entry, "time") + " " + textOf(entry, "source") + ": " + textOf(entry, "text");
}

std::string stateToLine(const nlohmann::json& state)
{
    const nlohmann::json guard = fieldOf(state, "guard");
    const nlohmann::json job = fieldOf(state, "job");
    std::string strLine = "level " + levelOf(state);
    strLine += ", arm " + choose(fieldOf(guard, "homed"), "homed", "not homed");
    strLine += ", beam " + beamOf(guard);
    const std::string strActivity = textOf(state, "activity");
    strLine += strActivity.empty() ? "" : ", under way: " + strActivity;
    return strLine + (job.is_object() ? ", " + textOf(job, "name") + " " + jobToLine(job) : "");
}

std::string stateToText(const nlohmann::json& state)
{
    const nlohmann::json guard = fieldOf(state, "guard");
    std::string strText = line("level", levelOf(state));
    if (true == fieldOf(guard, "present")) {
        strText += line("beam", beamOf(guard));
        strText += line("arm", choose(fieldOf(guard, "homed"), "homed", "not homed"));
        strText += line("controller", choose(fieldOf(guard, "controller"), "there", "not there"));
    }
    if (true == fieldOf(guard, "alarm")) {
        strText += line("alarm", "it stopped the arm: \"kestrel-arm unlock\" clears the lock");
    }
    if (true == fieldOf(guard, "reset_held")) {
        strText += line("reset line", "held: \"kestrel-arm reset\" lets it go");
    }
    if (fieldOf(guard, "firmware").is_number()) {
        strText += line("firmware", count(guard, "firmware") + " bytes taken");
    }
    strText += line("camera", cameraToText(fieldOf(state, "camera")));
    strText +=
        line("vision", choose(fieldOf(fieldOf(state, "vision"), "present"), "there", "no plug-in"));
    const std::string strActivity = textOf(state, "activity");
    strText += strActivity.empty() ? "" : line("under way", strActivity);
    const nlohmann::json job = fieldOf(state, "job");
    if (job.is_object()) {
        strText += line("job", textOf(job, "name"));
        strText += line("", jobToLine(job));
    }
    const nlohmann::json last = fieldOf(state, "last_job");
    strText += last.is_object() ? line("last job", endToText(last)) : "";
    for (const nlohmann::json& missing : fieldOf(state, "missing")) {
        strText += line("missing", textOf(missing, "what") + ": " + textOf(missing, "action"));
    }
    return strText;
}
