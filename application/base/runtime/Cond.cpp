// A POSIX condition variable, used together with a Mutex that the caller holds.
#include "Cond.h"

#include "Assert.h"
#include "Log.h"

static const char* const SOURCE_NAME = "Cond.cpp";

Cond::Cond()
{
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setpshared(&attr, PTHREAD_PROCESS_PRIVATE);
    ASSERT_IN("Cond::Cond()", 0 == pthread_cond_init(&m_Cond, &attr));
    ASSERT_IN("Cond::Cond()", 0 == pthread_condattr_destroy(&attr));
}

Cond::~Cond()
{
    if (0 != pthread_cond_broadcast(&m_Cond)) {
        LOG(7, "cond Broadcast failed !!!\n");
        return;
    }
    pthread_cond_destroy(&m_Cond);
}

RET_E Cond::wait(Mutex& mutex)
{
    return (0 == pthread_cond_wait(&m_Cond, &mutex.m_mtx)) ? RET_SUCCESS : RET_FAILED;
}

RET_E Cond::waitTimeOut(Mutex& mutex, const Time& time)
{
    (void)mutex;
    (void)time;
    assertionFailed("0", SOURCE_NAME, __LINE__, "RET_E Cond::waitTimeOut(Mutex&, const Time&)");
}

RET_E Cond::signal()
{
    return (0 == pthread_cond_signal(&m_Cond)) ? RET_SUCCESS : RET_FAILED;
}

RET_E Cond::broadcast()
{
    return (0 == pthread_cond_broadcast(&m_Cond)) ? RET_SUCCESS : RET_FAILED;
}

bool Cond::isWaiting()
{
    ASSERT_IN("bool Cond::isWaiting()", m_nWaitTimes >= 0);
    return m_nWaitTimes > 0;
}
