// kestrel-arm: the command line of the person at the arm.
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "CheckCommand.h"
#include "ExitStatus.h"
#include "IArmCommand.h"
#include "OffCommand.h"

// NOLINTNEXTLINE(bugprone-exception-escape): without memory for the options the program ends
int main(int argc, char** argv)
{
    CLI::App app("Works with the laser arm.", "kestrel-arm");
    app.get_formatter()->label("Usage", "usage");
    app.set_version_flag("--version", std::string("kestrel-arm ") + KESTREL_VERSION);
    app.set_help_all_flag("--help-all", "Print the help of every command and exit");
    app.require_subcommand(1);
    std::vector<std::unique_ptr<IArmCommand>> vecCommand;
    vecCommand.push_back(std::make_unique<CheckCommand>(app));
    vecCommand.push_back(std::make_unique<OffCommand>(app));
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
