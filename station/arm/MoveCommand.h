// "kestrel-arm move" and "kestrel-arm jog": to a place, and by so much.
#pragma once

#include "ChangeCommand.h"

class MoveCommand : public ChangeCommand
{
public:
    /** @param bRelative  jog */
    MoveCommand(CLI::App& app, bool bRelative);

    int run() override;

protected:
    nlohmann::json getBody() const override;

private:
    double m_dX = 0;
    double m_dY = 0;
    double m_dZ = 0;
    double m_dFeed = 1000;
};
