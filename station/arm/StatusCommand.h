// "kestrel-arm status": what the station knows.
#pragma once

#include "StationCommand.h"

class StatusCommand : public StationCommand
{
public:
    explicit StatusCommand(CLI::App& app);

protected:
    int ask(const StationClient& client) override;
};
