// kestrel-arm: the command line of the person at the arm.
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "ChangeCommand.h"
#include "CheckCommand.h"
#include "ExitStatus.h"
#include "FirmwareCommand.h"
#include "IArmCommand.h"
#include "JournalCommand.h"
#include "LevelCommand.h"
#include "MeasureCommand.h"
#include "MoveCommand.h"
#include "OffCommand.h"
#include "RunCommand.h"
#include "StatusCommand.h"
#include "SupportCommand.h"
#include "WatchCommand.h"

// How long each may take, by docs/api.yaml.
static const int SHORT_MS = 15000;
static const int HOME_MS = 70000;

// NOLINTNEXTLINE(bugprone-exception-escape): without memory for the options the program ends
int main(int argc, char** argv)
{
    CLI::App app("Works with the laser arm.", "kestrel-arm");
    app.get_formatter()->label("Usage", "usage");
    app.set_version_flag("--version", std::string("kestrel-arm ") + KESTREL_VERSION);
    app.set_help_all_flag("--help-all", "Print the help of every command and exit");
    app.require_subcommand(1);
    std::vector<std::unique_ptr<IArmCommand>> vecCommand;
    const auto addChange = [&](const char* pName, const char* pHelp, const char* pPath, int nMs) {
        vecCommand.push_back(std::make_unique<ChangeCommand>(app, pName, pHelp, pPath, nMs));
    };
    vecCommand.push_back(std::make_unique<StatusCommand>(app));
    vecCommand.push_back(std::make_unique<WatchCommand>(app));
    vecCommand.push_back(std::make_unique<LevelCommand>(app));
    addChange("home", "Home the arm.", "/home", HOME_MS);
    vecCommand.push_back(std::make_unique<MoveCommand>(app, false));
    vecCommand.push_back(std::make_unique<MoveCommand>(app, true));
    vecCommand.push_back(std::make_unique<MeasureCommand>(app));
    vecCommand.push_back(std::make_unique<CheckCommand>(app));
    vecCommand.push_back(std::make_unique<RunCommand>(app));
    addChange("pause", "Hold the job, beam off.", "/job/pause", SHORT_MS);
    addChange("resume", "Go on with a job that is held.", "/job/resume", SHORT_MS);
    addChange("stop", "End the job, beam off.", "/job/stop", SHORT_MS);
    vecCommand.push_back(std::make_unique<OffCommand>(app));
    addChange("reset", "Reset the controller, beam off.", "/reset", SHORT_MS);
    addChange("unlock",
              "Clear the controller's lock behind an alarm; the arm stays dark and not homed.",
              "/unlock", SHORT_MS);
    vecCommand.push_back(std::make_unique<FirmwareCommand>(app));
    vecCommand.push_back(std::make_unique<JournalCommand>(app));
    vecCommand.push_back(std::make_unique<SupportCommand>(app));
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return (0 == app.exit(error)) ? STATUS_DONE : STATUS_UNUSABLE;
    }
    for (const auto& pCommand : vecCommand) {
        if (pCommand->isGiven()) {
            return pCommand->run();
        }
    }
    return STATUS_UNUSABLE; // not reached: a command is required
}
