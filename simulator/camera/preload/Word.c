// Words of 32 bits that lock and wait, between threads or processes.
#define _GNU_SOURCE
#include "Word.h"

#include <errno.h>
#include <linux/futex.h>
#include <stdbool.h>
#include <stddef.h>
#include <sys/syscall.h>
#include <unistd.h>

static long futex(uint32_t* pWord, int nOperation, uint32_t u32Value, const void* pTimeout)
{
    return syscall(SYS_futex, pWord, nOperation, u32Value, pTimeout, NULL, 0);
}

void lockWord(uint32_t* pWord)
{
    uint32_t u32Seen = 0;
    if (__atomic_compare_exchange_n(pWord, &u32Seen, 1, false, __ATOMIC_ACQUIRE,
                                    __ATOMIC_RELAXED)) {
        return;
    }
    while (0 != __atomic_exchange_n(pWord, 2, __ATOMIC_ACQUIRE)) {
        futex(pWord, FUTEX_WAIT, 2, NULL);
    }
}

void unlockWord(uint32_t* pWord)
{
    if (2 == __atomic_exchange_n(pWord, 0, __ATOMIC_RELEASE)) {
        futex(pWord, FUTEX_WAKE, 1, NULL);
    }
}

int waitWord(uint32_t* pWord, uint32_t u32Value, long nNanoseconds)
{
    const struct
    {
        long nSeconds; // as wide as the kernel's old timespec, which SYS_futex takes
        long nNanoseconds;
    } timeout = {0, nNanoseconds};
    const long nResult = futex(pWord, FUTEX_WAIT, u32Value, &timeout);
    return nResult < 0 && ETIMEDOUT == errno ? ETIMEDOUT : 0;
}

void wakeWord(uint32_t* pWord)
{
    futex(pWord, FUTEX_WAKE, 1, NULL);
}
