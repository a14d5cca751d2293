// "kestrel-arm move" and "kestrel-arm jog": to a place, and by so much.
#include "MoveCommand.h"

#include "Output.h"

MoveCommand::MoveCommand(CLI::App& app, bool bRelative)
    : ChangeCommand(app, bRelative ? "jog" : "move",
                    bRelative ? "Move by so much, beam off." : "Move to a place, beam off.",
                    bRelative ? "/jog" : "/move", 30000)
{
    const std::string strHelp = bRelative ? "mm to go; " : "mm, of the homed machine; ";
    getCommand().add_option("--x", m_dX, strHelp + "left out, the axis stays");
    getCommand().add_option("--y", m_dY, strHelp + "left out, the axis stays");
    getCommand().add_option("--z", m_dZ, strHelp + "left out, the axis stays");
    getCommand().add_option("--feed", m_dFeed, "mm/min")->capture_default_str();
}

nlohmann::json MoveCommand::getBody() const
{
    nlohmann::json body = {{"feed", m_dFeed}};
    const CLI::App& command = getCommand();
    if (command.count("--x") > 0) {
        body["x"] = m_dX;
    }
    if (command.count("--y") > 0) {
        body["y"] = m_dY;
    }
    if (command.count("--z") > 0) {
        body["z"] = m_dZ;
    }
    return body;
}

int MoveCommand::run()
{
    if (1 == getBody().size()) {
        complain("say where to: --x, --y, --z");
        return STATUS_UNUSABLE;
    }
    return ChangeCommand::run();
}
