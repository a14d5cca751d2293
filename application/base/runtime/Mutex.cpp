// A POSIX mutex with the attributes that this system uses.
#include "Mutex.h"

#include "Assert.h"
#include "Log.h"

static const char* const SOURCE_NAME = "Mutex.cpp";

Mutex::Mutex(MUTEX_TYPE_E type)
{
    static const char* const FUNCTION = "Mutex::Mutex(MUTEX_TYPE_E)";
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_PRIVATE);
    ASSERT_IN(FUNCTION, 0 == pthread_mutexattr_settype(&attr, type));
    ASSERT_AS(0 == pthread_mutex_init(&m_mtx, &attr), "0 == pthread_mutex_init(&m_mtx,&attr)",
              FUNCTION);
    ASSERT_IN(FUNCTION, 0 == pthread_mutexattr_destroy(&attr));
}

Mutex::~Mutex()
{
    pthread_mutex_destroy(&m_mtx);
}

RET_E Mutex::lock() NO_THREAD_SAFETY_ANALYSIS
{
    if (0 != pthread_mutex_lock(&m_mtx)) {
        LOG(2, "mutex lock error !!\n");
        return RET_FAILED;
    }
    return RET_SUCCESS;
}

RET_E Mutex::unlock() NO_THREAD_SAFETY_ANALYSIS
{
    if (0 != pthread_mutex_unlock(&m_mtx)) {
        LOG(2, "mutex unlock error !!\n");
        return RET_FAILED;
    }
    return RET_SUCCESS;
}

RET_E Mutex::tryLock()
{
    return (0 == pthread_mutex_trylock(&m_mtx)) ? RET_SUCCESS : RET_FAILED;
}

int Mutex::unlockQuietly() NO_THREAD_SAFETY_ANALYSIS
{
    return pthread_mutex_unlock(&m_mtx);
}

bool Mutex::isLock()
{
    ASSERT_IN("bool Mutex::isLock()", m_nLockTimes >= 0);
    return m_nLockTimes > 0;
}
