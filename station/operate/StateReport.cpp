// All that is known of the arm and of what works with it.
#include "StateReport.h"

#include "ArmMeasure.h"
#include "ArmTerminal.h"
#include "ArmUse.h"
#include "GuardLink.h"
#include "JobRun.h"
#include "PictureWatch.h"
#include "RestartOffer.h"
#include "VideoProcessor.h"
#include "WallTime.h"

using nlohmann::json;

namespace {

const char* getUseName(ARM_USE_E eUse)
{
    switch (eUse) {
    case ARM_HOME:
        return "home";
    case ARM_MOVE:
        return "move";
    case ARM_JOG:
        return "jog";
    case ARM_MEASURE:
        return "measure";
    case ARM_FREE:
    case ARM_JOB:
    case ARM_JOB_END:
        break;
    }
    return nullptr;
}

} // namespace

StateReport::StateReport(const Sources& sources) : m_sources(sources), m_strStarted(getWallTime())
{
}

json StateReport::describeGuard() const
{
    const GuardState state = m_sources.guard.getState();
    json guard = {{"present", state.bPresent}};
    for (const char* const pKey : {"level", "controller", "beam_seen_off", "reset_held", "homed",
                                   "alarm", "paused", "line", "firmware"}) {
        guard[pKey] = nullptr;
    }
    if (state.bPresent) {
        guard["level"] = state.strLevel;
        guard["controller"] = state.bController;
        guard["beam_seen_off"] = state.bBeamSeenOff;
        guard["reset_held"] = state.bResetHeld;
        guard["homed"] = state.bHomed;
        guard["alarm"] = m_sources.bAlarm.load();
        guard["paused"] = state.bPaused;
        guard["line"] = state.u64Line;
    }
    if (state.bPresent && state.s64Firmware >= 0) {
        guard["firmware"] = state.s64Firmware;
    }
    return guard;
}

json StateReport::describeMissing() const
{
    json missing = json::array();
    const auto add = [&missing](const char* pWhat, const std::string& strAction) {
        missing.push_back({{"what", pWhat}, {"action", strAction}});
    };
    const GuardState state = m_sources.guard.getState();
    if (!m_sources.strNoLimits.empty()) {
        add("limits", "Complete the guard's configuration: " + m_sources.strNoLimits);
    }
    if (!state.bPresent) {
        add("guard", "Start kestrel-guard, and add the station's user to the group of its socket.");
    } else {
        if (!state.bController) {
            add("controller", "Plug the motion controller in, and switch it on." +
                                  (state.strPortError.empty()
                                       ? ""
                                       : " The guard cannot open it: " + state.strPortError + "."));
        }
        if (!m_sources.terminal.isOpen()) {
            add("terminal",
                "Let the station's user open " + m_sources.guardConfiguration.strLink + ".");
        }
    }
    if (!m_sources.pictures.isPresent()) {
        add("camera", "Plug the camera in.");
    }
    if (!VideoProcessor::getInstance().canMeasure()) {
        add("vision",
            std::string("Put ") + PLUGIN + " into the station's folder, and start it anew.");
    }
    return missing;
}

json StateReport::describe() const
{
    const bool bPictures = m_sources.pictures.getCount() > 0;
    const char* const pUse = getUseName(ArmUse::getInstance().get());
    json camera = {{"present", m_sources.pictures.isPresent()},
                   {"pictures", m_sources.pictures.getCount()},
                   {"age_ms", nullptr},
                   {"width", nullptr},
                   {"height", nullptr}};
    if (bPictures) {
        camera["age_ms"] = m_sources.pictures.getAgeMs();
        camera["width"] = m_sources.pictures.getWidth();
        camera["height"] = m_sources.pictures.getHeight();
    }
    return {{"version", KESTREL_VERSION},
            {"started", m_strStarted},
            {"time", getWallTime()},
            {"camera", camera},
            {"vision",
             {{"present", VideoProcessor::getInstance().canMeasure()},
              {"open_to_all", ArmUse::getInstance().isOpen()}}},
            {"guard", describeGuard()},
            {"terminal", m_sources.terminal.isOpen()},
            {"activity", (nullptr == pUse) ? json(nullptr) : json(pUse)},
            {"job", m_sources.run.describe()},
            {"last_job", m_sources.restart.describeLastJob()},
            {"missing", describeMissing()}};
}
