// "kestrel-arm off": turns the beam off, by the station or else straight at the guard.
#include "OffCommand.h"

#include "Output.h"

OffCommand::OffCommand(CLI::App& app)
    : m_pCommand(app.add_subcommand("off", "Turn the beam off, at any level.")),
      m_options(*m_pCommand)
{
    m_options.addGuard(*m_pCommand);
}

int OffCommand::run()
{
    const BeamOff::Result result = m_options.makeBeamOff().turnOff();
    if (!result.bTaken) {
        complain(result.strStation);
        complain(result.strGuard);
    }
    std::string strOut;
    if (m_options.isJson()) {
        nlohmann::json json = {{"taken", result.bTaken}, {"seen_off", result.bSeenOff}};
        json["by"] = result.bTaken ? nlohmann::json(result.pBy) : nlohmann::json();
        strOut = json.dump() + "\n";
    } else if (result.bTaken) {
        strOut = std::string("beam off by the ") + result.pBy +
                 (result.bSeenOff ? ", seen off\n" : ", NOT seen off yet\n");
    }
    const bool bPrinted = print(strOut);
    if (!result.bTaken) {
        return result.bRefused ? STATUS_REFUSED : STATUS_NO_ANSWER;
    }
    if (!result.bSeenOff) {
        return STATUS_REFUSED;
    }
    return bPrinted ? STATUS_DONE : STATUS_UNUSABLE;
}
