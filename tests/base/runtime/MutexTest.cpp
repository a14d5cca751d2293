// The mutex's types and its failures, and the assertions of a set-up that fails.
#include "Mutex.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "DirtyStack.h"
#include "Fault.h"
#include "LogCapture.h"

// The tests take and leave locks the wrong way on purpose.
#ifdef __clang__
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

TEST(Mutex, NothingOfItsAttributesIsLeftToChance)
{
    dirtyStack();
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);

    EXPECT_EQ(RET_SUCCESS, mutex.lock());
    EXPECT_EQ(RET_SUCCESS, mutex.unlock());
}

TEST(Mutex, TypesAreThePlatformsNumbers)
{
    EXPECT_EQ(0, MUTEX_TYPE_NORMAL);
    EXPECT_EQ(1, MUTEX_TYPE_RECURSIVE);
    EXPECT_EQ(2, MUTEX_TYPE_ERRORCHECK);
    EXPECT_EQ(PTHREAD_MUTEX_NORMAL, static_cast<int>(MUTEX_TYPE_NORMAL));
    EXPECT_EQ(PTHREAD_MUTEX_RECURSIVE, static_cast<int>(MUTEX_TYPE_RECURSIVE));
    EXPECT_EQ(PTHREAD_MUTEX_ERRORCHECK, static_cast<int>(MUTEX_TYPE_ERRORCHECK));
}

TEST(Mutex, RelockOfAnErrorCheckingMutexIsLoggedAndFails)
{
    LogCapture log;
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    ASSERT_EQ(RET_SUCCESS, mutex.lock());

    EXPECT_EQ(1, mutex.lock());

    EXPECT_EQ("[error] [Mutex.cpp ] [lock] mutex lock error !!\n", log.text());
    EXPECT_EQ(RET_SUCCESS, mutex.unlock());
}

// In a program of its own, since the thread sanitizer reports the call, which fails as it should.
TEST(Mutex, UnlockOfAnErrorCheckingMutexNotHeldIsLoggedAndFails)
{
    const ChildResult result =
        runChild({"/usr/bin/env", "TSAN_OPTIONS=report_mutex_bugs=0", BASE_CHILD, "unlock"});

    EXPECT_EQ("[error] [Mutex.cpp ] [unlock] mutex unlock error !!\nresult 1\nquietly EPERM\n",
              result.strOutput);
    EXPECT_EQ(0, result.nStatus);
}

TEST(Mutex, QuietUnlockOfAHeldMutexSucceeds)
{
    LogCapture log;
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    ASSERT_EQ(RET_SUCCESS, mutex.lock());

    EXPECT_EQ(0, mutex.unlockQuietly());

    EXPECT_EQ("", log.text());
}

TEST(Mutex, RecursiveMutexIsLockedTwice)
{
    Mutex mutex(MUTEX_TYPE_RECURSIVE);

    EXPECT_EQ(RET_SUCCESS, mutex.lock());
    EXPECT_EQ(RET_SUCCESS, mutex.lock());
    EXPECT_EQ(RET_SUCCESS, mutex.unlock());
    EXPECT_EQ(RET_SUCCESS, mutex.unlock());
}

TEST(Mutex, TryLockOfABusyMutexFailsUnlogged)
{
    LogCapture log;
    Mutex mutex(MUTEX_TYPE_NORMAL);
    ASSERT_EQ(RET_SUCCESS, mutex.tryLock());

    EXPECT_EQ(RET_FAILED, mutex.tryLock());

    EXPECT_EQ("", log.text());
    EXPECT_EQ(RET_SUCCESS, mutex.unlock());
}

TEST(Mutex, DeliberateIsLockIsFalseWhileLocked)
{
    Mutex mutex(MUTEX_TYPE_NORMAL);
    ASSERT_EQ(RET_SUCCESS, mutex.lock());

    EXPECT_FALSE(mutex.isLock());

    EXPECT_EQ(RET_SUCCESS, mutex.unlock());
}

TEST(Mutex, OneThreadAtATimeIsInside)
{
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    int nCount = 0;
    const auto work = [&] {
        for (int i = 0; i < 1000; ++i) {
            MutexGuard guard(mutex);
            ++nCount;
        }
    };

    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();

    EXPECT_EQ(2000, nCount);
}

TEST(MutexGuard, RefusedLockIsNotUnlocked)
{
    LogCapture log;
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    MutexGuard outer(mutex);
    {
        MutexGuard inner(mutex);
        EXPECT_TRUE(outer.isHeld());
        EXPECT_FALSE(inner.isHeld());
    }

    std::atomic<int> nResult{-1};
    std::thread([&] { nResult = mutex.tryLock(); }).join();

    EXPECT_EQ(RET_FAILED, nResult); // still held
    EXPECT_EQ("[error] [Mutex.cpp ] [lock] mutex lock error !!\n", log.text());
}

TEST(Mutex, FailedSetUpNamesExpressionFileAndFunction)
{
    EXPECT_DEATH(
        {
            FaultScope fault("pthread_mutexattr_settype:1:EINVAL");
            Mutex mutex(MUTEX_TYPE_NORMAL);
        },
        "Mutex.cpp:[0-9]+: Mutex::Mutex\\(MUTEX_TYPE_E\\): Assertion "
        "`0 == pthread_mutexattr_settype\\(&attr, type\\)' failed");
    EXPECT_DEATH(
        {
            FaultScope fault("pthread_mutex_init:1:ENOMEM");
            Mutex mutex(MUTEX_TYPE_NORMAL);
        },
        "Mutex.cpp:[0-9]+: Mutex::Mutex\\(MUTEX_TYPE_E\\): Assertion "
        "`0 == pthread_mutex_init\\(&m_mtx,&attr\\)' failed");
    EXPECT_DEATH(
        {
            FaultScope fault("pthread_mutexattr_destroy:1:EINVAL");
            Mutex mutex(MUTEX_TYPE_NORMAL);
        },
        "Mutex.cpp:[0-9]+: Mutex::Mutex\\(MUTEX_TYPE_E\\): Assertion "
        "`0 == pthread_mutexattr_destroy\\(&attr\\)' failed");
}
