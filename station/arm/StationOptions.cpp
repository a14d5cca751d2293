// What every command that asks the station can be told about it.
#include "StationOptions.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

const char* const StationOptions::DEFAULT_URL = "http://127.0.0.1:8330";
const char* const StationOptions::DEFAULT_TOKEN = "/etc/kestrel-station.token";
// A board may have no /run; on Debian /var/run leads there.
const char* const StationOptions::DEFAULT_GUARD = "/var/run/kestrel-guard/operator/socket";

StationOptions::StationOptions(CLI::App& command)
    : m_strUrl(DEFAULT_URL), m_strTokenFile(DEFAULT_TOKEN), m_strGuard(DEFAULT_GUARD)
{
    command.add_option("--url", m_strUrl, "where the station answers")
        ->capture_default_str()
        ->check([](const std::string& strUrl) {
            return StationClient::canAsk(strUrl) ? "" : strUrl + " is no URL that can be asked";
        });
    command.add_option("--token", m_strTokenFile, "the file with its token")->capture_default_str();
    command.add_flag("--json", m_bJson, "print JSON");
}

void StationOptions::addGuard(CLI::App& command)
{
    command.add_option("--guard", m_strGuard, "the guard's socket, when no station answers")
        ->capture_default_str();
}

bool StationOptions::readToken(std::string& strToken, std::string& strError) const
{
    errno = 0;
    std::ifstream file(m_strTokenFile);
    std::getline(file, strToken);
    if (strToken.empty()) {
        strError = m_strTokenFile + ": " + (0 == errno ? "no token" : strerror(errno));
    }
    return !strToken.empty();
}

std::unique_ptr<StationClient> StationOptions::makeClient() const
{
    std::string strToken;
    std::string strError;
    if (!readToken(strToken, strError)) {
        fprintf(stderr, "kestrel-arm: %s\n", strError.c_str());
        return nullptr;
    }
    return std::make_unique<StationClient>(m_strUrl, strToken);
}

BeamOff StationOptions::makeBeamOff() const
{
    std::string strToken;
    std::string strIgnored; // the station refuses then, and the guard is asked
    (void)readToken(strToken, strIgnored);
    return {StationClient(m_strUrl, strToken), GuardClient(m_strGuard)};
}
