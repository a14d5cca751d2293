// A thread that cannot be created, prioritised or ended.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <new>
#include <string>

#include <sched.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "Thread.h"
#include "ThreadWorker.h"

namespace {

// A thread that was never created keeps its destructor waiting for ever: these are never destroyed.
const int KEPT = 8;
alignas(Thread) char g_acKept[KEPT * sizeof(Thread)];
Worker g_aWorker[KEPT];
int g_nKept = 0;

Thread& keep(int nNice, int nPolicy, int nPriority)
{
    Worker* pWorker = &g_aWorker[g_nKept];
    void* pPlace = &g_acKept[sizeof(Thread) * static_cast<size_t>(g_nKept)];
    ++g_nKept;
    return *new (pPlace) Thread(&Worker::run, pWorker, "kept", nNice, nPolicy, nPriority, false);
}

bool g_bNothrowFails = false;

} // namespace

void* operator new(size_t uSize, const std::nothrow_t&) noexcept
{
    return g_bNothrowFails ? nullptr : ::operator new(uSize); // nobody else here runs out of it
}

TEST(ThreadFailure, FailuresOfCreationAreLoggedWithTheirErrorText)
{
    const struct
    {
        const char* pPlan;
        int nError;
        const char* pLine;
    } aCase[] = {
        {"pthread_attr_getinheritsched:1:EINVAL", EINVAL, "pthread_attr_getinheritsched failed! "},
        {"pthread_attr_setinheritsched:1:ENOTSUP", ENOTSUP,
         "pthread_attr_setinheritsched failed! "},
        {"pthread_attr_setschedpolicy:1:EINVAL", EINVAL, "pthread_attr_setschedpolicy failed! "},
        {"pthread_attr_setschedparam:1:EINVAL", EINVAL, "pthread_attr_setschedParam failed! "},
        {"pthread_create:1:EAGAIN", EAGAIN, "pthread_create failed! "},
    };
    LogCapture log(BARE_FUNCTION);
    for (const auto& entry : aCase) {
        log.clear();
        FaultScope fault(entry.pPlan);

        const Thread& thread = keep(0, 0, 0);

        EXPECT_EQ(1u, faultHits()) << entry.pPlan;
        EXPECT_EQ(std::string("[error] [Thread.cpp ] [create] ") + entry.pLine +
                      strerror(entry.nError) + "\n",
                  log.text());
        EXPECT_EQ(0, thread.getTid());
    }
}

TEST(ThreadFailure, CreateReturnsThePlatformsErrorAndMayBeTriedAgain)
{
    (void)faultPlan("pthread_create:1-2:EAGAIN");
    Worker worker;
    Thread thread(&Worker::run, &worker, "late", 0, 0, 0, true);

    EXPECT_EQ(EAGAIN, thread.create());
    (void)faultPlan("");
    EXPECT_EQ(0, thread.create());

    (void)thread.start();
    EXPECT_TRUE(waitForCalls(worker, 2));
}

TEST(ThreadFailure, RefusedPriorityIsLogged)
{
    LogCapture log(BARE_FUNCTION);

    (void)keep(0, SCHED_OTHER, 77); // the ordinary policy has no priority but 0

    EXPECT_EQ(std::string("[error] [Thread.cpp ] [create] pthread_attr_setschedParam failed! ") +
                  strerror(EINVAL) + "\n",
              log.text());
}

TEST(ThreadFailure, DeliberateRefusedNiceValueIsLoggedByWhatWasReturned)
{
    LogCapture log(BARE_FUNCTION);
    FaultScope fault("nice:1:EPERM");

    Thread& thread = keep(-5, 0, 0);

    // The text of what nice returned, which is no error number.
    const std::string strLine =
        std::string("[error] [Thread.cpp ] [theThread] change nice failed! ") + strerror(-1) + "\n";
    EXPECT_TRUE(eventually([&] { return 1 == log.count(strLine); }));
    EXPECT_TRUE(eventually([&] { return "" == nameOf(thread.getTid()); })); // gone
    (void)thread.start();
    (void)thread.stop();
    EXPECT_EQ(0, g_aWorker[g_nKept - 1].m_nCalls);
}

// Three waits of the destruction have no limit. The alarm is what ends them here.
TEST(ThreadFailure, DeliberateDestructionWaitsForAThreadThatWasNeverCreated)
{
    EXPECT_EXIT(
        {
            (void)faultPlan("pthread_create:1:EAGAIN");
            Worker worker;
            {
                const Thread thread(&Worker::run, &worker, "never", 0, 0, 0, true);
                alarm(1);
            }
            _exit(0);
        },
        testing::KilledBySignal(SIGALRM), "");
}

TEST(ThreadFailure, DeliberateDestructionWaitsForAThreadThatNeverReachedItsGate)
{
    EXPECT_EXIT(
        {
            (void)faultPlan("nice:1:EPERM");
            Worker worker;
            {
                const Thread thread(&Worker::run, &worker, "refused", -5, 0, 0, true);
                alarm(1);
            }
            _exit(0);
        },
        testing::KilledBySignal(SIGALRM), "");
}

TEST(ThreadFailure, DeliberateDestructionWaitsForABodyThatNeverReturns)
{
    EXPECT_EXIT(
        {
            Worker worker;
            worker.m_bHold = true;
            {
                Thread thread(&Worker::run, &worker, "busy", 0, 0, 0, false);
                (void)thread.start();
                if (!eventually([&] { return worker.m_bInside.load(); })) {
                    _exit(1);
                }
                alarm(1);
            }
            _exit(0);
        },
        testing::KilledBySignal(SIGALRM), "");
}

TEST(ThreadFailure, NiceValueRefusedByTheKernelEndsItToo)
{
    const ChildResult result = runChild({BASE_CHILD, "nice-refused"});

    EXPECT_NE(std::string::npos,
              result.strOutput.find(std::string("change nice failed! ") + strerror(-1) + "\n"))
        << result.strOutput;
    EXPECT_NE(std::string::npos, result.strOutput.find("calls 0\n"));
}

TEST(ThreadFailure, BodyThatCannotBeAllocatedIsLogged)
{
    LogCapture log(BARE_FUNCTION);
    g_bNothrowFails = true;

    const Thread& thread = keep(0, 0, 0);

    g_bNothrowFails = false;
    EXPECT_EQ("[error] [application/base/include/Thread ] [Thread] thread callback function new "
              "failed !!\n",
              log.text());
    EXPECT_EQ(0, thread.getTid());
}
