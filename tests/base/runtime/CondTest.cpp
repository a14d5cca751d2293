// The condition variable: waking, its failures, and the operations that are as they are.
#include "Cond.h"

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "Time.h"

#ifdef __clang__
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

static std::atomic<int> g_nDestroyed{0};

// The linker gives the program's calls to the second.
extern "C" int __real_pthread_cond_destroy(pthread_cond_t* pCond);

extern "C" int __wrap_pthread_cond_destroy(pthread_cond_t* pCond)
{
    ++g_nDestroyed;
    return __real_pthread_cond_destroy(pCond);
}

namespace {

/** A thread that waits once, without a predicate; what wakes it, and how often, is the test. */
class Waiter
{
public:
    Waiter(Cond& cond, Mutex& mutex)
        : m_mtx(mutex), m_thread([this, &cond] {
              (void)m_mtx.lock();
              m_bWaiting = true;
              m_nResult = cond.wait(m_mtx);
              (void)m_mtx.unlock();
              m_bWoken = true;
          })
    {
        EXPECT_TRUE(eventually([this] { return m_bWaiting.load(); }));
        (void)m_mtx.lock(); // free only once the thread has begun to wait
        (void)m_mtx.unlock();
    }
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    ~Waiter()
    {
        m_thread.join();
    }

    std::atomic<bool> m_bWoken{false};
    std::atomic<int> m_nResult{-1};

private:
    Mutex& m_mtx;
    std::atomic<bool> m_bWaiting{false};
    std::thread m_thread;
};

} // namespace

TEST(Cond, SignalWakesAWaiter)
{
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    Cond cond;
    Waiter waiter(cond, mutex);

    EXPECT_EQ(RET_SUCCESS, cond.signal());

    EXPECT_TRUE(eventually([&] { return waiter.m_bWoken.load(); }));
    EXPECT_EQ(0, waiter.m_nResult);
}

TEST(Cond, BroadcastWakesAll)
{
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    Cond cond;
    Waiter first(cond, mutex);
    Waiter second(cond, mutex);

    EXPECT_EQ(RET_SUCCESS, cond.broadcast());

    EXPECT_TRUE(eventually([&] { return first.m_bWoken && second.m_bWoken; }));
}

TEST(Cond, DestructionWakesWhoWaits)
{
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    auto pCond = std::make_unique<Cond>();
    Waiter waiter(*pCond, mutex);

    pCond.reset();

    EXPECT_TRUE(eventually([&] { return waiter.m_bWoken.load(); }));
}

// The platform's call returns once whoever was woken no longer looks at the condition.
TEST(Cond, DestructionDestroysThePlatformsCondition)
{
    auto pCond = std::make_unique<Cond>();
    const int nBefore = g_nDestroyed;

    pCond.reset();

    EXPECT_EQ(nBefore + 1, g_nDestroyed);
}

TEST(Cond, DeliberateIsWaitingIsFalseWhileSomebodyWaits)
{
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    Cond cond;
    Waiter waiter(cond, mutex);

    EXPECT_FALSE(cond.isWaiting());

    EXPECT_EQ(RET_SUCCESS, cond.signal());
}

TEST(Cond, FailuresOfThePlatformAreReturned)
{
    Cond cond;
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    FaultScope fault("pthread_cond_signal:1:EINVAL;pthread_cond_broadcast:1:EINVAL;"
                     "pthread_cond_wait:1:EPERM");

    EXPECT_EQ(1, cond.wait(mutex));
    EXPECT_EQ(1, cond.signal());
    EXPECT_EQ(1, cond.broadcast());
    EXPECT_EQ(0, cond.signal());
    EXPECT_EQ(0, cond.broadcast());
}

TEST(Cond, FailedBroadcastInTheDestructorIsLogged)
{
    LogCapture log;
    {
        Cond cond;
        (void)faultPlan("pthread_cond_broadcast:1:EINVAL");
    }
    (void)faultPlan("");

    EXPECT_EQ("[debug] [Cond.cpp ] [~Cond] cond Broadcast failed !!!\n", log.text());
}

TEST(Cond, DeliberateWaitWithATimeOutAborts)
{
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    Cond cond;

    EXPECT_EXIT((void)cond.waitTimeOut(mutex, Time(1, 0)), testing::KilledBySignal(SIGABRT),
                "Cond.cpp:[0-9]+: RET_E Cond::waitTimeOut\\(Mutex&, const Time&\\): Assertion "
                "`0' failed");
}

TEST(Cond, FailedSetUpNamesExpressionFileAndFunction)
{
    EXPECT_DEATH(
        {
            FaultScope fault("pthread_cond_init:1:ENOMEM");
            Cond cond;
        },
        "Cond.cpp:[0-9]+: Cond::Cond\\(\\): Assertion "
        "`0 == pthread_cond_init\\(&m_Cond, &attr\\)' failed");
    EXPECT_DEATH(
        {
            FaultScope fault("pthread_condattr_destroy:1:EINVAL");
            Cond cond;
        },
        "Cond.cpp:[0-9]+: Cond::Cond\\(\\): Assertion "
        "`0 == pthread_condattr_destroy\\(&attr\\)' failed");
}
