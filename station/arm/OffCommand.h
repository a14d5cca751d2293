// "kestrel-arm off": turns the beam off, by the station or else straight at the guard.
#pragma once

#include <CLI/CLI.hpp>

#include "IArmCommand.h"
#include "StationOptions.h"

/** Does not need a token for the guard. */
class OffCommand : public IArmCommand
{
public:
    explicit OffCommand(CLI::App& app);

    bool isGiven() const override
    {
        return m_pCommand->parsed();
    }
    int run() override;

private:
    CLI::App* m_pCommand; // the command line's
    StationOptions m_options;
};
