// "kestrel-arm level": raises the level to motion, or drops it to dark.
#include "LevelCommand.h"

LevelCommand::LevelCommand(CLI::App& app)
    : ChangeCommand(app, "level", "Raise the level to motion, or drop it to dark.", "/level", 15000)
{
    getCommand()
        .add_option("LEVEL", m_strLevel, "dark or motion; a job's own level comes with its start")
        ->required()
        ->check(CLI::IsMember({"dark", "motion"}));
}

nlohmann::json LevelCommand::getBody() const
{
    return {{"level", m_strLevel}};
}
