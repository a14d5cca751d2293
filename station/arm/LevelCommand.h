// "kestrel-arm level": raises the level to motion, or drops it to dark.
#pragma once

#include "ChangeCommand.h"

class LevelCommand : public ChangeCommand
{
public:
    explicit LevelCommand(CLI::App& app);

protected:
    nlohmann::json getBody() const override;

private:
    std::string m_strLevel;
};
