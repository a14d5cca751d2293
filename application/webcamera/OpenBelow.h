// Opening a file whose name comes from outside, below a folder and nowhere else.
#pragma once

/**
 * Open a regular file below a folder for writing, or create it; it is not truncated.
 *
 * The name is walked part by part, each from the descriptor of the part before, so that nothing
 * that is renamed or replaced meanwhile leads elsewhere; any kernel with O_PATH (2.6.39) will do.
 * Missing folders are not made. Doesn't wait, also not for a FIFO.
 * @param pFolder  may be reached through links, and be one
 * @param pName    parts between slashes; "." and empty ones stay where they are, ".." goes back
 * @return a close-on-exec descriptor, the caller's; -1, unlogged, for a name that leaves the
 * folder, be it only for a part of the way, that goes through a symbolic link or ends at one, or
 * that ends at anything else that exists and is no regular file, and when a call fails. Throws
 *         std::bad_alloc.
 */
int openBelow(const char* pFolder, const char* pName);
