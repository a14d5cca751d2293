// Thread: what it asks the system for: kind, joins, pauses and the nice value.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/prctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "CallJournal.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "Thread.h"

// For one thread: a nice value that is rightly -1, after a call that left an error behind.
static std::atomic<bool> g_bLegalMinusOne{false};
static std::atomic<bool> g_bNiceHeld{false}; // as on a busy machine
static std::atomic<bool> g_bNameHeld{false}; // likewise

// The linker gives the code's calls to these, and theirs to the C library.
extern "C" int __wrap_nice(int nIncrement);
extern "C" int __real_nice(int nIncrement);
extern "C" int __wrap_prctl(int nOption, ...);
extern "C" int __real_prctl(int nOption, ...);

int __wrap_nice(int nIncrement)
{
    while (g_bNiceHeld) {
        std::this_thread::yield();
    }
    return g_bLegalMinusOne ? -1 : __real_nice(nIncrement); // errno is left as it is
}

int __wrap_prctl(int nOption, ...)
{
    va_list args;
    va_start(args, nOption);
    const unsigned long ulArgument = va_arg(args, unsigned long);
    va_end(args);
    while (g_bNameHeld && PR_SET_NAME == nOption) {
        std::this_thread::yield();
    }
    const int nRet = __real_prctl(nOption, ulArgument, 0UL, 0UL, 0UL);
    if (g_bLegalMinusOne) {
        errno = EPERM;
    }
    return nRet;
}

namespace {

using Lines = std::vector<std::string>;

/** Calls that last until they are released. */
class HeldBody
{
public:
    int run()
    {
        m_bInside = true;
        while (m_bHold) {
            std::this_thread::yield();
        }
        return 0;
    }
    std::atomic<bool> m_bInside{false}; // has been called
    std::atomic<bool> m_bHold{false};
};

Lines onlyOf(const char* pCall)
{
    Lines vecLine;
    for (const std::string& strLine : CallJournal::lines()) {
        if (0 == strLine.compare(0, std::string(pCall).size(), pCall)) {
            vecLine.push_back(strLine);
        }
    }
    return vecLine;
}

} // namespace

TEST(ThreadCalls, JoinableThreadIsCreatedSoAndJoinedOnce)
{
    const CallJournal journal("pthread_create pthread_join");
    HeldBody body;
    {
        const Thread thread(&HeldBody::run, &body, "joinable", 0, 0, 0, true);
        EXPECT_EQ(Lines{"pthread_create joinable"}, CallJournal::lines());
    }

    EXPECT_EQ((Lines{"pthread_create joinable", "pthread_join"}), CallJournal::lines());
}

TEST(ThreadCalls, DetachedThreadIsCreatedSoAndNeverJoined)
{
    const CallJournal journal("pthread_create pthread_join");
    HeldBody body;
    {
        const Thread thread(&HeldBody::run, &body, "detached", 0, 0, 0, false);
    }

    EXPECT_EQ(Lines{"pthread_create detached"}, CallJournal::lines());
}

TEST(ThreadCalls, KilledThreadIsJoinedByTheKillWhenJoinable)
{
    class SleepingBody
    {
    public:
        int run()
        {
            m_bInside = true;
            for (;;) {
                (void)pause(); // cancelled here; no locals, which AddressSanitizer would miss
            }
        }
        std::atomic<bool> m_bInside{false};
    };
    for (const bool bJoinable : {true, false}) {
        const CallJournal journal("pthread_join");
        SleepingBody body;
        {
            Thread thread(&SleepingBody::run, &body, "killed", 0, 0, 0, bJoinable);
            (void)thread.start();
            ASSERT_TRUE(eventually([&] { return body.m_bInside.load(); }));

            EXPECT_EQ(0, thread.forceKill());

            EXPECT_EQ(bJoinable ? 1U : 0U, CallJournal::lines().size());
        }
        EXPECT_EQ(bJoinable ? 1U : 0U, CallJournal::lines().size()) << "not once more";
    }
}

TEST(ThreadCalls, EndedThreadsLeaveNothingBehind)
{
    HeldBody body;
    const auto runOne = [&body](bool bJoinable) {
        Thread thread(&HeldBody::run, &body, "one of many threads", 0, 0, 0, bJoinable);
        (void)thread.start();
    };
    runOne(true);
    const size_t uBefore = allocatedBytes();

    for (int i = 0; i < 100; ++i) {
        runOne(0 == i % 2);
    }

    // A thread's state alone has more than a hundred bytes; a detached one may be leaving still.
    EXPECT_TRUE(eventually([uBefore] { return allocatedBytes() < uBefore + 5000; }))
        << allocatedBytes() - uBefore;
}

TEST(ThreadCalls, WaitsForItLookAgainAfterAFewMilliseconds)
{
    HeldBody body;
    body.m_bHold = true;
    CallJournal journal("select");
    {
        Thread thread(&HeldBody::run, &body, "waited-for", 0, 0, 0, true);
        const Lines vecCreation = CallJournal::lines();
        EXPECT_EQ(Lines(vecCreation.size(), "select 0.005000"), vecCreation);
        (void)thread.start();
        ASSERT_TRUE(eventually([&] { return body.m_bInside.load(); }));
        journal.clear();
        std::thread stopper([&] { (void)thread.stop(); });
        EXPECT_TRUE(eventually([] { return onlyOf("select").size() >= 2; }));
        body.m_bHold = false;
        stopper.join();
        const Lines vecStop = CallJournal::lines();
        EXPECT_EQ(Lines(vecStop.size(), "select 0.003000"), vecStop);
        journal.clear();
    }
    const Lines vecEnd = CallJournal::lines();
    ASSERT_FALSE(vecEnd.empty());
    EXPECT_EQ(Lines(vecEnd.size(), "select 0.003000"), vecEnd);
}

TEST(ThreadCalls, CreationLooksForTheIdEveryFiveMilliseconds)
{
    HeldBody body;
    const CallJournal journal("select");
    g_bNameHeld = true; // on the way there
    std::unique_ptr<Thread> pThread;
    std::thread creator(
        [&] { pThread = std::make_unique<Thread>(&HeldBody::run, &body, "slow", 0, 0, 0, true); });
    EXPECT_TRUE(eventually([] { return onlyOf("select").size() >= 2; }));

    g_bNameHeld = false;
    creator.join();

    const Lines vecWait = CallJournal::lines();
    EXPECT_EQ(Lines(vecWait.size(), "select 0.005000"), vecWait);
}

// The cancellation reaches it while it waits at its gate, where it has the lock again.
TEST(ThreadCalls, KilledThreadThatParksItselfLeavesNoLock)
{
    class ParkingBody
    {
    public:
        int run()
        {
            m_bInside = true;
            while (!m_bMayPark) { // no place for a cancellation
            }
            return m_pThread->stop();
        }
        Thread* m_pThread = nullptr;
        std::atomic<bool> m_bInside{false};
        std::atomic<bool> m_bMayPark{false};
    };
    LogCapture log;
    ParkingBody body;
    {
        const CallJournal journal("pthread_join");
        Thread thread(&ParkingBody::run, &body, "parking", 0, 0, 0, true);
        body.m_pThread = &thread;
        (void)thread.start();
        ASSERT_TRUE(eventually([&] { return body.m_bInside.load(); }));
        std::thread killer([&thread] { EXPECT_EQ(0, thread.forceKill()); });
        EXPECT_TRUE(eventually([] { return 0 != journalCount(); })); // it has been cancelled

        body.m_bMayPark = true;
        killer.join();
    }

    EXPECT_EQ(std::string::npos, log.text().find("mutex")) << log.text();
    EXPECT_NE(std::string::npos, log.text().find("stop thread by myself")) << log.text();
}

TEST(ThreadCalls, DestructionLooksForTheGateEveryTenMilliseconds)
{
    HeldBody body;
    g_bNiceHeld = true; // on the way there
    auto pThread = std::make_unique<Thread>(&HeldBody::run, &body, "late", 0, 0, 0, true);
    const CallJournal journal("select");
    std::thread destroyer([&pThread] { pThread.reset(); });
    EXPECT_TRUE(eventually([] { return onlyOf("select").size() >= 2; }));
    const Lines vecWait = CallJournal::lines();

    g_bNiceHeld = false;
    destroyer.join();

    EXPECT_EQ(Lines(vecWait.size(), "select 0.010000"), vecWait);
}

TEST(ThreadCalls, NiceValueOfMinusOneIsNoFailure)
{
    static HeldBody s_body;
    g_bLegalMinusOne = true;
    auto pThread = std::make_unique<Thread>(&HeldBody::run, &s_body, "minus-one", 0, 0, 0, true);
    (void)pThread->start();

    EXPECT_TRUE(eventually([&] { return s_body.m_bInside.load(); }));
    g_bLegalMinusOne = false;
    if (HasFailure()) {
        (void)pThread.release(); // its destruction would never end
    }
}
