// A command that asks the station.
#include "StationCommand.h"

#include "ExitStatus.h"

StationCommand::StationCommand(CLI::App& app, const std::string& strName,
                               const std::string& strHelp)
    : m_pCommand(app.add_subcommand(strName, strHelp)), m_options(*m_pCommand)
{
}

bool StationCommand::isGiven() const
{
    return m_pCommand->parsed();
}

int StationCommand::run()
{
    const auto pClient = m_options.makeClient();
    return nullptr == pClient ? STATUS_UNUSABLE : ask(*pClient);
}
