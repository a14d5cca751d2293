// A POSIX mutex with the attributes that this system uses.
#pragma once

#include <cstdint>

#include <pthread.h>

#include "RetE.h"
#include "ThreadAnnotations.h"

/** The mutex type; the values are Linux's own mutex type numbers (pthread_mutexattr_settype(3)). */
enum MUTEX_TYPE_E
{
    MUTEX_TYPE_NORMAL = 0,
    MUTEX_TYPE_RECURSIVE = 1,
    MUTEX_TYPE_ERRORCHECK = 2 // relocking by the owner fails instead of deadlocking
};

/**
 * Private to the process. Failures of set-up are assertions; lock and unlock report theirs.
 *
 * A failing lock or unlock is logged, so its line runs through the log sinks on the same thread.
 */
class CAPABILITY("mutex") Mutex
{
public:
    explicit Mutex(MUTEX_TYPE_E type);
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    ~Mutex();

    /**
     * @return RET_FAILED (logged, level 2) when not locked, e.g. already held and error-checking
     */
    RET_E lock() ACQUIRE();

    /** @return RET_FAILED (logged, level 2) when not unlocked, e.g. not held and error-checking */
    RET_E unlock() RELEASE();

    /** @return RET_SUCCESS taken; RET_FAILED busy or failed, unlogged */
    RET_E tryLock() NO_THREAD_SAFETY_ANALYSIS;

    /** For clean-up paths. @return the platform's result; nothing is logged */
    int unlockQuietly() RELEASE();

    /** Deliberate: always false, lock and unlock do not count; do not rely on it. */
    bool isLock();

private:
    friend class Cond;

    pthread_mutex_t m_mtx;
    int32_t m_nLockTimes = 0;
};

/** Holds a mutex for a scope. A lock that failed (and was logged) is not unlocked. */
class SCOPED_CAPABILITY MutexGuard
{
public:
    explicit MutexGuard(Mutex& mutex) ACQUIRE(mutex)
        : m_mtx(mutex), m_bHeld(RET_SUCCESS == mutex.lock())
    {
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    ~MutexGuard() RELEASE()
    {
        if (m_bHeld) {
            (void)m_mtx.unlock(); // logged there
        }
    }

    /** False when the lock was refused: this thread already holds an error-checking mutex. */
    bool isHeld() const
    {
        return m_bHeld;
    }

private:
    Mutex& m_mtx;
    bool m_bHeld;
};
