// A command that asks the station for one change, and prints the state with the change in it.
#pragma once

#include <string>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "StationCommand.h"

/** By itself a change that nothing more has to be said about. */
class ChangeCommand : public StationCommand
{
public:
    /**
     * @param strName     of the command
     * @param strHelp     a sentence
     * @param strPath     of the request
     * @param nTimeoutMs  how long it may take
     */
    ChangeCommand(CLI::App& app, const std::string& strName, const std::string& strHelp,
                  std::string strPath, int nTimeoutMs);

protected:
    int ask(const StationClient& client) override;

    /** What is asked for. */
    virtual nlohmann::json getBody() const
    {
        return nlohmann::json::object();
    }

private:
    std::string m_strPath;
    int m_nTimeoutMs;
};
