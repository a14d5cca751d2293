// The thread behind its gate: starting, parking, ending, and what is logged about it.
#include "Thread.h"

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <string>
#include <thread>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Eventually.h"
#include "LibraryCall.h"
#include "LogCapture.h"
#include "ThreadWorker.h"
#include "Threads.h"

namespace {

std::atomic<bool> g_bSlowName{false};

class SpecialWorker : public Worker
{
public:
    int run() override
    {
        m_bSpecial = true;
        return 42;
    }
    std::atomic<bool> m_bSpecial{false};
};

std::string withTid(const char* pText, int32_t s32Tid, const char* pName)
{
    return std::string(pText) + "(tid:" + std::to_string(s32Tid) + " name:" + pName + ")\n";
}

/** Whether the threads are joinable. */
class ThreadKinds : public testing::TestWithParam<bool>
{
};

} // namespace

// In front of the C library's: naming takes its time, as on a busy machine.
extern "C" int prctl(int nOption, ...) LIBRARY_CALL
{
    va_list args;
    va_start(args, nOption);
    const unsigned long ulArgument = va_arg(args, unsigned long);
    va_end(args);
    if (g_bSlowName && PR_SET_NAME == nOption) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return static_cast<int>(syscall(SYS_prctl, nOption, ulArgument, 0, 0, 0));
}

TEST_P(ThreadKinds, BodyIsNotCalledBeforeStart)
{
    Worker worker;
    {
        Thread thread(&Worker::run, &worker, "parked", 0, 0, 0, GetParam());
        EXPECT_NE(0, thread.getTid());
        EXPECT_TRUE(eventually([&] { return isAsleep(thread.getTid()) || 0 != worker.m_nCalls; }));
    }

    EXPECT_EQ(0, worker.m_nCalls);
}

TEST_P(ThreadKinds, BodyThatReturnsZeroIsCalledAgainAndAgain)
{
    Worker worker;
    Thread thread(&Worker::run, &worker, "again", 0, 0, 0, GetParam());

    EXPECT_EQ(0, thread.start());

    EXPECT_TRUE(waitForCalls(worker, 20));
}

TEST_P(ThreadKinds, StopReturnsOnlyAfterTheCurrentCall)
{
    Worker worker;
    worker.m_bHold = true;
    Thread thread(&Worker::run, &worker, "stop", 0, 0, 0, GetParam());
    (void)thread.start();
    ASSERT_TRUE(eventually([&] { return worker.m_bInside.load(); }));
    std::atomic<bool> bStopped{false};
    const CallJournal journal("select");
    std::thread stopper([&] {
        EXPECT_EQ(0, thread.stop());
        EXPECT_FALSE(worker.m_bInside);
        bStopped = true;
    });

    // It waits by looking every three milliseconds.
    EXPECT_TRUE(eventually([&] { return CallJournal::count("select 0.003000") > 0 || bStopped; }));
    EXPECT_FALSE(bStopped);
    worker.m_bHold = false;
    stopper.join();

    const int nCalls = worker.m_nCalls;
    std::this_thread::sleep_for(std::chrono::milliseconds(10)); // it would be called by now
    EXPECT_EQ(nCalls, worker.m_nCalls);
    (void)thread.start();
    EXPECT_TRUE(waitForCalls(worker, 2));
}

TEST_P(ThreadKinds, BodyThatStopsItselfParksUntilTheNextStart)
{
    LogCapture log(BARE_FUNCTION);
    Worker worker;
    Thread thread(&Worker::run, &worker, "self", 0, 0, 0, GetParam());
    worker.m_pThread = &thread;
    worker.m_bStopItself = true;
    (void)thread.start();
    ASSERT_TRUE(eventually([&] {
        return 1 == log.count("[info ] [Thread.cpp ] [stop] " +
                              withTid("stop thread by myself", thread.getTid(), "self"));
    }));
    EXPECT_TRUE(eventually([&] { return isAsleep(thread.getTid()) || worker.m_bResumed; }));
    EXPECT_FALSE(worker.m_bResumed);

    // The body's thread parks a moment after its line: a start before that finds it running.
    EXPECT_TRUE(eventually([&] {
        (void)thread.start();
        return worker.m_bResumed.load();
    }));

    EXPECT_TRUE(waitForCalls(worker, 2));
}

TEST_P(ThreadKinds, BodyThatReturnsNonZeroEndsTheThread)
{
    Worker worker;
    worker.m_nResult = 1;
    Thread thread(&Worker::run, &worker, "once", 0, 0, 0, GetParam());
    (void)thread.start();

    EXPECT_TRUE(eventually([&] { return 1 == thread.getResult(); }));
    (void)thread.start();
    (void)thread.stop();

    EXPECT_EQ(1, worker.m_nCalls);
}

TEST_P(ThreadKinds, DeliberateQuickStopTakesTheStartBack)
{
    Worker worker;
    Thread thread(&Worker::run, &worker, "quick", 0, 0, 0, GetParam());

    for (int i = 0; i < 50; ++i) {
        (void)thread.start();
        (void)thread.stop();
    }

    // The last start may have come through the gate once more before the flag was taken back.
    int nCalls = -1;
    EXPECT_TRUE(eventually([&] {
        const int nBefore = nCalls;
        nCalls = worker.m_nCalls;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return nBefore == nCalls && nCalls == worker.m_nCalls;
    }));
}

TEST_P(ThreadKinds, KilledWhileRunningCanBeDestroyed)
{
    LogCapture log(BARE_FUNCTION);
    Worker worker;
    worker.m_bHold = true;
    int32_t s32Tid = 0;
    {
        Thread thread(&Worker::run, &worker, "killed", 0, 0, 0, GetParam());
        (void)thread.start();
        ASSERT_TRUE(eventually([&] { return worker.m_bInside.load(); }));
        s32Tid = thread.getTid();

        EXPECT_EQ(0, thread.forceKill());

        EXPECT_EQ(0, thread.getTid());
        EXPECT_EQ(0, thread.forceKill()); // not running any more
    }

    EXPECT_TRUE(worker.m_bInside); // cut off in the middle
    EXPECT_EQ(1, log.count("[info ] [Thread.cpp ] [forceKill] force killed thread, tid:" +
                           std::to_string(s32Tid) + "\n"));
    EXPECT_EQ(1, log.count("[info ] [Thread.cpp ] [destory] destory thread(tid:0 name:killed)\n"));
}

TEST_P(ThreadKinds, KillOfAParkedThreadDoesNothing)
{
    Worker worker;
    Thread thread(&Worker::run, &worker, "parked", 0, 0, 0, GetParam());

    EXPECT_EQ(0, thread.forceKill());
    EXPECT_NE(0, thread.getTid());

    (void)thread.start();
    EXPECT_TRUE(waitForCalls(worker, 2));
}

TEST_P(ThreadKinds, DestructionEndsARunningThread)
{
    Worker worker;
    {
        Thread thread(&Worker::run, &worker, "running", 0, 0, 0, GetParam());
        (void)thread.start();
        ASSERT_TRUE(waitForCalls(worker, 2));
    }
    const int nCalls = worker.m_nCalls;

    EXPECT_TRUE(eventually([] { return 0 == countThreads("running"); }));
    EXPECT_EQ(nCalls, worker.m_nCalls);
}

TEST(Thread, VirtualBodyReachesTheOverride)
{
    SpecialWorker worker;
    Thread thread(&Worker::run, static_cast<Worker*>(&worker), "virtual", 0, 0, 0, true);

    (void)thread.start();

    EXPECT_TRUE(eventually([&] { return 42 == thread.getResult(); }));
    EXPECT_TRUE(worker.m_bSpecial);
}

TEST(Thread, EveryStepIsLoggedOnce)
{
    LogCapture log(BARE_FUNCTION);
    Worker worker;
    int32_t s32Tid = 0;
    {
        Thread thread(&Worker::run, &worker, "logged", 0, 0, 0, true);
        s32Tid = thread.getTid();
        worker.m_bHold = true;
        (void)thread.start();
        ASSERT_TRUE(eventually([&] { return worker.m_bInside.load(); }));
        (void)thread.start(); // past the gate, inside a call: nothing happens
        worker.m_bHold = false;
        (void)thread.stop();
        (void)thread.stop(); // parked: nothing happens
        EXPECT_EQ("[info ] [Thread.cpp ] [create] " + withTid("create thread", s32Tid, "logged") +
                      "[info ] [Thread.cpp ] [start] " + withTid("start thread", s32Tid, "logged") +
                      "[info ] [Thread.cpp ] [stop] " + withTid("stop thread", s32Tid, "logged"),
                  log.text());
    }

    EXPECT_EQ("[info ] [Thread.cpp ] [destory] " + withTid("destory thread", s32Tid, "logged"),
              log.lines().back());
}

TEST(Thread, DeliberateNameIsThereBeforeTheId)
{
    LogCapture log(BARE_FUNCTION);
    Worker worker;
    g_bSlowName = true;
    Thread thread(&Worker::run, &worker, "named", 0, 0, 0, true);
    g_bSlowName = false;

    EXPECT_EQ("named", nameOf(thread.getTid()));
}

TEST(Thread, NameIsCutToFifteenCharacters)
{
    LogCapture log(0);
    Worker worker;
    {
        Thread thread(&Worker::run, &worker, "a-name-of-twenty-two", 0, 0, 0, true);

        EXPECT_EQ("a-name-of-twent", nameOf(thread.getTid()));
        EXPECT_EQ(withTid("create thread", thread.getTid(), "a-name-of-twenty-two"), log.text());
    }
}

TEST(Thread, NiceValueIsTheThreadsAlone)
{
    Worker worker;
    Thread thread(&Worker::run, &worker, "nice", 3, 0, 0, true);
    const auto niceOf = [](int32_t s32Tid) {
        return getpriority(PRIO_PROCESS, static_cast<id_t>(s32Tid));
    };
    const int nOwn = niceOf(getpid());

    EXPECT_TRUE(eventually([&] { return nOwn + 3 == niceOf(thread.getTid()); }));
    EXPECT_EQ(nOwn, niceOf(getpid()));
}

TEST(Thread, PolicyAndPriorityApply)
{
    Worker worker;
    Thread probe(&Worker::run, &worker, "ordinary", 0, 0, 0, true);
    sched_param param{};
    param.sched_priority = 1;
    // By the kernel's calls: musl's functions of these names fail always.
    if (0 != syscall(SYS_sched_setscheduler, probe.getTid(), SCHED_RR, &param)) {
        GTEST_SKIP() << "real-time scheduling is not permitted here";
    }

    Thread thread(&Worker::run, &worker, "realtime", 0, SCHED_RR, 2, true);

    EXPECT_EQ(SCHED_RR, syscall(SYS_sched_getscheduler, thread.getTid()));
    ASSERT_EQ(0, syscall(SYS_sched_getparam, thread.getTid(), &param));
    EXPECT_EQ(2, param.sched_priority);
}

INSTANTIATE_TEST_SUITE_P(JoinableAndDetached, ThreadKinds, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& kind) {
                             return kind.param ? "Joinable" : "Detached";
                         });
