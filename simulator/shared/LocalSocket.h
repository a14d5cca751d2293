// Sockets in the file system.
#pragma once

#include <string>

/**
 * Listen at a path, in place of what was there; not blocking, closed on exec.
 * @param nType  SOCK_STREAM or SOCK_SEQPACKET
 * @return the descriptor, or -1 with errno; ENAMETOOLONG for a path of more than 107 bytes
 */
int listenAt(const std::string& strPath, int nType);

/** Connect to what listens at a path; blocking, closed on exec; parameter and results as above. */
int connectTo(const std::string& strPath, int nType);
