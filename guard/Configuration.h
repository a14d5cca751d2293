// The guard's configuration file.
#pragma once

#include <string>

#include "GcodeCheck.h"

/** What the file says; every limit is finite, and the box is not empty. */
struct Configuration
{
    std::string strFile; // where this was read
    std::string strPort; // the controller's, a path that stays the same
    bool bGrbl = false;  // else the arm's own language
    std::string strPilotOn = "M8";
    std::string strPilotOff = "M9";
    bool bHoming = true;      // false: Grbl without switches, where home takes the place reported
    std::string strResetLine; // a pin's "value" in sysfs; empty: none

    std::string strLink;         // where the service finds its terminal
    std::string strServiceGroup; // who may open that; empty: as the system makes it
    std::string strSocket;       // the operator's
    std::string strGroup;        // who may use it; empty: the guard's own group

    GuardLimits limits;
    bool bLease = true; // jobs end when nobody renews them
};

/**
 * Read a file in TOML; docs/guard.md tells its keys. Blocks for the file.
 * @param strError  one line that says what is wrong: not readable, no TOML, an unknown key, a value
 * of the wrong kind, or one that is missing or not finite
 * @return false when anything is; the configuration is of no meaning then
 */
bool readConfiguration(const std::string& strPath, Configuration& configuration,
                       std::string& strError);
