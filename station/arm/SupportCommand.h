// "kestrel-arm support": one archive with what somebody who helps wants to know.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "IArmCommand.h"
#include "StationOptions.h"

/** Works without a station, too: what cannot be had is told in the archive. */
class SupportCommand : public IArmCommand
{
public:
    explicit SupportCommand(CLI::App& app);

    bool isGiven() const override
    {
        return m_pCommand->parsed();
    }
    int run() override;

private:
    CLI::App* m_pCommand; // the command line's
    StationOptions m_options;
    std::string m_strOut;
    std::vector<std::string> m_vecConfiguration{"/etc/kestrel-guard.toml",
                                                "/etc/kestrel-station.toml"};
};
