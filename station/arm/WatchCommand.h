// "kestrel-arm watch": what changes, as it changes, until Ctrl-C.
#pragma once

#include "StationCommand.h"

class WatchCommand : public StationCommand
{
public:
    explicit WatchCommand(CLI::App& app);

protected:
    int ask(const StationClient& client) override;
};
