// "kestrel-arm firmware": sends the controller its firmware, through the guard.
#pragma once

#include <cstdint>
#include <string>

#include "StationCommand.h"

/** Stays until the controller has taken it, or the guard tells why not. */
class FirmwareCommand : public StationCommand
{
public:
    explicit FirmwareCommand(CLI::App& app);

protected:
    int ask(const StationClient& client) override;

private:
    int follow(const StationClient& client, int64_t s64LastEntry, const nlohmann::json& begun);

    std::string m_strFile;
};
