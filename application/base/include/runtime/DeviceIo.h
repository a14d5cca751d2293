// Waiting for a descriptor, and ioctl, undisturbed by signals.
#pragma once

#include <cstdint>

/**
 * Wait until nFd is readable.
 *
 * Deliberate: a signal restarts the whole wait. Any descriptor number is fine; poll(2) is
 * underneath, since a select(2) set ends at 1023.
 * @return true when ready or in error (closed or negative descriptor included), false on time-out
 */
bool waitReadable(int nFd, uint32_t u32Seconds, uint32_t u32Microseconds);

/** The same for writing. */
bool waitWritable(int nFd, uint32_t u32Seconds, uint32_t u32Microseconds);

/** ioctl(2), repeated while a signal interrupts it. @return its result, errno set */
int ioctlRetry(int nFd, unsigned long ulRequest, void* pArg);
