// Waits on and wakes 32-bit words that two processes share.
#include "Futex.h"

#include <climits>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Futex {

void wait(uint32_t* pWord, uint32_t u32Value)
{
    (void)::syscall(SYS_futex, pWord, FUTEX_WAIT, u32Value, nullptr, nullptr, 0);
}

void wakeAll(uint32_t* pWord)
{
    (void)::syscall(SYS_futex, pWord, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

} // namespace Futex
