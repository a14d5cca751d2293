// A command that asks the station.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "IArmCommand.h"
#include "StationOptions.h"

/** Has the options that tell where the station is, and reads its token. */
class StationCommand : public IArmCommand
{
public:
    /** @param app  the command line, which outlives it  @param strHelp  a sentence */
    StationCommand(CLI::App& app, const std::string& strName, const std::string& strHelp);

    bool isGiven() const override;

    /** Without a usable token the status tells so, and nobody is asked. */
    int run() override;

protected:
    /** @return the program's status */
    virtual int ask(const StationClient& client) = 0;

    CLI::App& getCommand() const
    {
        return *m_pCommand;
    }
    StationOptions& getOptions()
    {
        return m_options;
    }
    bool isJson() const
    {
        return m_options.isJson();
    }

private:
    CLI::App* m_pCommand; // the command line's
    StationOptions m_options;
};
