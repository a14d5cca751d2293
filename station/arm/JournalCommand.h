// "kestrel-arm journal": what has happened.
#pragma once

#include <cstdint>

#include "StationCommand.h"

class JournalCommand : public StationCommand
{
public:
    explicit JournalCommand(CLI::App& app);

protected:
    int ask(const StationClient& client) override;

private:
    int64_t m_s64After = 0;
    int m_nLimit = 100;
};
