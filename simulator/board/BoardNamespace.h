// A private /dev and /sys/class for the virtual board, seen by this process and its children only.
#pragma once

#include <string>

/**
 * Enter a mount namespace of our own in which /dev holds just null, zero, full, random, urandom,
 * tty, a fresh pts with ptmx, an empty shm and the usual links to /proc/self/fd, and /sys/class is
 * empty and writable. The host's trees stay as they are; everything goes with the last process.
 *
 * Call it before the first thread starts. A process without the right to do so tries a user
 * namespace first, where it then is root.
 * @param strError  set on failure: one line without a line end that says what was refused
 * @return false on failure; the process may then be half inside and should end
 */
bool enterBoardNamespace(std::string& strError);
