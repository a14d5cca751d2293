// "kestrel-arm check": looks through a job's file, without a machine.
#pragma once

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "ExitStatus.h"
#include "IArmCommand.h"

/** The command's options and what it does. Lives as long as the program's command line. */
class CheckCommand : public IArmCommand
{
public:
    explicit CheckCommand(CLI::App& app);

    bool isGiven() const override
    {
        return m_pCommand->parsed();
    }
    int run() override;

private:
    CLI::App* m_pCommand; // the command line's
    std::string m_strFile;
    std::string m_strConfiguration;
    std::string m_strMended;
    std::string m_strPicture;
    std::vector<double> m_vecStart{0, 0, 0};
    std::vector<std::string> m_vecSystem;
    bool m_bJson = false;
};
