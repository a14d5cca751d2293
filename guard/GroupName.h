// A group by its name.
#pragma once

#include <string>

#include <grp.h>
#include <sys/types.h>

/**
 * Reads the system's groups; blocks and allocates.
 * @param uGroup  "no change" of chown(2) for an empty name
 * @param strError  one line, when there is no such group
 */
inline bool findGroup(const std::string& strName, gid_t& uGroup, std::string& strError)
{
    uGroup = static_cast<gid_t>(-1);
    const group* const pGroup = strName.empty() ? nullptr : getgrnam(strName.c_str());
    if (!strName.empty() && nullptr == pGroup) {
        strError = "no such group: " + strName;
        return false;
    }
    uGroup = (nullptr == pGroup) ? uGroup : pGroup->gr_gid;
    return true;
}
