// A group by its name.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include <grp.h>
#include <sys/types.h>

enum GROUP_E
{
    GROUP_FOUND,
    GROUP_UNKNOWN, // the system has no such group
    GROUP_FAILED   // the system's groups could not be read now
};

/**
 * Reads the system's groups; blocks and allocates.
 * @param uGroup  "no change" of chown(2) for an empty name
 * @param strError  one line, when it is not found
 */
inline GROUP_E findGroup(const std::string& strName, gid_t& uGroup, std::string& strError)
{
    uGroup = static_cast<gid_t>(-1);
    if (strName.empty()) {
        return GROUP_FOUND;
    }
    errno = 0;
    if (const group* const pGroup = getgrnam(strName.c_str()); nullptr != pGroup) {
        uGroup = pGroup->gr_gid;
        return GROUP_FOUND;
    }
    for (const int nError : {EINTR, EIO, EMFILE, ENFILE, ENOMEM}) { // of getgrnam(3); others: none
        if (nError == errno) {
            strError = "group " + strName + ": " + strerror(nError);
            return GROUP_FAILED;
        }
    }
    strError = "no such group: " + strName;
    return GROUP_UNKNOWN;
}
