// A command that asks the station for one change, and prints the state with the change in it.
#include "ChangeCommand.h"

#include <utility>

#include "Output.h"
#include "StateText.h"

ChangeCommand::ChangeCommand(CLI::App& app, const std::string& strName, const std::string& strHelp,
                             std::string strPath, int nTimeoutMs)
    : StationCommand(app, strName, strHelp), m_strPath(std::move(strPath)), m_nTimeoutMs(nTimeoutMs)
{
}

int ChangeCommand::ask(const StationClient& client)
{
    const StationAnswer answer = client.post(m_strPath, getBody(), m_nTimeoutMs);
    if (!answer.isGood()) {
        return refuse(answer, isJson());
    }
    return print(isJson() ? answer.json.dump() + "\n" : stateToLine(answer.json) + "\n")
               ? STATUS_DONE
               : STATUS_UNUSABLE;
}
