// "kestrel-arm measure": finds the pilot spot, goes there and focuses.
#pragma once

#include "StationCommand.h"

class MeasureCommand : public StationCommand
{
public:
    explicit MeasureCommand(CLI::App& app);

protected:
    int ask(const StationClient& client) override;
};
