// kestrel-arm: the command line of the person at the arm.
#include <CLI/CLI.hpp>

#include "CheckCommand.h"

// NOLINTNEXTLINE(bugprone-exception-escape): without memory for the options the program ends
int main(int argc, char** argv)
{
    CLI::App app("Works with the laser arm.");
    app.set_version_flag("--version", std::string("kestrel-arm ") + KESTREL_VERSION);
    app.require_subcommand(1);
    const CheckCommand check(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return (0 == app.exit(error)) ? 0 : 2;
    }
    return check.run(); // the only command yet
}
