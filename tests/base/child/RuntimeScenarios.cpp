// Scenarios of mutexes, time stamps and threads.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <unistd.h>

#include "Eventually.h"
#include "LogCapture.h"
#include "Mutex.h"
#include "Scenarios.h"
#include "Thread.h"
#include "Threads.h"
#include "Time.h"

#ifdef __clang__
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

static time_t g_stopped = 0; // the clock's only time, once it is not 0

extern "C" time_t time(time_t* pTime)
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    const time_t now = (0 != g_stopped) ? g_stopped : ts.tv_sec;
    if (nullptr != pTime) {
        *pTime = now;
    }
    return now;
}

int runUnlock(int, char**)
{
    LogCapture log;
    Mutex mutex(MUTEX_TYPE_ERRORCHECK);
    const int nResult = mutex.unlock();
    const int nQuietly = mutex.unlockQuietly();
    printf("%sresult %d\nquietly %s\n", log.text().c_str(), nResult,
           (EPERM == nQuietly) ? "EPERM" : "?");
    return 0;
}

/** Year, month, day, hour, minute, second of the local time at which the clock stands. */
int runStamp(int argc, char** argv)
{
    if (8 != argc) {
        return 100;
    }
    tm local{};
    local.tm_year = atoi(argv[2]) - 1900;
    local.tm_mon = atoi(argv[3]) - 1;
    local.tm_mday = atoi(argv[4]);
    local.tm_hour = atoi(argv[5]);
    local.tm_min = atoi(argv[6]);
    local.tm_sec = atoi(argv[7]);
    local.tm_isdst = -1;
    g_stopped = mktime(&local);
    printf("%s\n%s\n", timeStamp(0).c_str(), timeStamp(1).c_str());
    return 0;
}

namespace {

class Counter
{
public:
    int run()
    {
        ++m_nCalls;
        return 0;
    }
    std::atomic<int> m_nCalls{0};
};

} // namespace

/** A user without privileges asks for a nicer treatment than is his. */
int runNiceRefused(int, char**)
{
    if (0 == geteuid() && 0 != setuid(65534)) { // nobody
        return 100;
    }
    LogCapture log;
    Counter counter;
    alignas(Thread) char acPlace[sizeof(Thread)]; // never destroyed: its destructor would wait
    auto* pThread = new (acPlace) Thread(&Counter::run, &counter, "greedy", -5, 0, 0, false);
    (void)pThread->start();
    if (!eventually([&] { return log.text().find("nice") != std::string::npos; })) {
        return 100;
    }
    if (!eventually([] { return 0 == countThreads("greedy"); })) {
        return 100;
    }
    printf("%scalls %d\n", log.text().c_str(), counter.m_nCalls.load());
    fflush(stdout);
    _exit(0); // the thread is gone, its object is not
}
