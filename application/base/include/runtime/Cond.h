// A POSIX condition variable, used together with a Mutex that the caller holds.
#pragma once

#include <cstdint>

#include <pthread.h>

#include "Mutex.h"
#include "RetE.h"

class Time;

/**
 * Private to the process. Failures of set-up are assertions; the other operations return theirs.
 */
class Cond
{
public:
    Cond();
    Cond(const Cond&) = delete;
    Cond& operator=(const Cond&) = delete;

    /**
     * Wakes all waiters first, and leaves the condition undestroyed (logged, level 7) if that
     * fails.
     */
    ~Cond();

    /**
     * Release the mutex, wait, take it again. Wakes without cause are possible: test a predicate.
     */
    RET_E wait(Mutex& mutex) REQUIRES(mutex);

    /** Deliberate: not available; any call aborts. Nothing in the system waits with a time-out. */
    [[noreturn]] RET_E waitTimeOut(Mutex& mutex, const Time& time);

    /** Wake one waiter. Any thread. */
    RET_E signal();

    /** Wake all waiters. Any thread. */
    RET_E broadcast();

    /** Deliberate: always false, no operation counts the waiters. */
    bool isWaiting();

private:
    pthread_cond_t m_Cond;
    int32_t m_nWaitTimes = 0;
};
