// The station's configuration file.
#pragma once

#include <string>
#include <vector>

/** What the file says; what it leaves out is as here. */
struct StationConfiguration
{
    bool bStarts = false;                             // in place of kestrel-server
    std::string strFolder = ".";                      // of jobs, journal and the vision plug-in
    std::string strGuard = "/etc/kestrel-guard.toml"; // the guard's, for its socket and its limits
    bool bOpenMeasure = false; // whether a measurement may be asked for without a token

    std::vector<std::string> vecAddress{"127.0.0.1"};
    int nPort = 8330;
    std::string strTokenFile = "/etc/kestrel-station.token";
    std::vector<std::string> vecHost;
    std::vector<std::string> vecOrigin;
};

/**
 * Read a file in TOML; docs/station.md tells its keys. Blocks for the file.
 * @param strError  one line that says what is wrong: not readable, no TOML, an unknown key or a
 * value of the wrong kind
 */
bool readStationConfiguration(const std::string& strPath, StationConfiguration& configuration,
                              std::string& strError);

/**
 * The one line of the token file, of 16 to 256 printable characters without a blank.
 * @param strError  one line, when it is not
 */
bool readToken(const std::string& strPath, std::string& strToken, std::string& strError);
