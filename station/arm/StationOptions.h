// What every command that asks the station can be told about it.
#pragma once

#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "BeamOff.h"
#include "StationClient.h"

/** The options --url, --token, --guard and --json of one command. */
class StationOptions
{
public:
    static const char* const DEFAULT_URL;
    static const char* const DEFAULT_TOKEN;
    static const char* const DEFAULT_GUARD;

    /** @param command  whose options these are; the object lives as long as the command line */
    explicit StationOptions(CLI::App& command);
    StationOptions(const StationOptions&) = delete;
    StationOptions& operator=(const StationOptions&) = delete;

    /** Also with the guard's socket. */
    void addGuard(CLI::App& command);

    bool isJson() const
    {
        return m_bJson;
    }

    /**
     * Read the token.
     * @return null after a line on standard error, when there is none
     */
    std::unique_ptr<StationClient> makeClient() const;

    /** Without a token it still turns the beam off at the guard. */
    BeamOff makeBeamOff() const;

private:
    bool readToken(std::string& strToken, std::string& strError) const;

    std::string m_strUrl;
    std::string m_strTokenFile;
    std::string m_strGuard;
    bool m_bJson = false;
};
