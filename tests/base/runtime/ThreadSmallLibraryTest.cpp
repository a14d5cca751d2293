// Threads on a C library that looks at a policy and a priority no earlier than pthread_create does:
// this program's attributes take any.
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include <pthread.h>
#include <sched.h>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "Thread.h"

// The linker gives the program's calls to these.
extern "C" int __wrap_pthread_attr_setschedpolicy(pthread_attr_t*, int)
{
    return 0;
}

extern "C" int __wrap_pthread_attr_setschedparam(pthread_attr_t*, const sched_param*)
{
    return 0;
}

namespace {

class Body
{
public:
    int run()
    {
        return 1;
    }
};

// A thread that was never created keeps its destructor waiting for ever: these are never destroyed.
alignas(Thread) char g_acKept[2 * sizeof(Thread)];
Body g_body;
size_t g_uKept = 0;

/** @return what the creation of a thread logs */
std::string logOfCreation(int nPolicy, int nPriority)
{
    const LogCapture log;
    void* pPlace = &g_acKept[sizeof(Thread) * g_uKept++];
    (void)new (pPlace) Thread(&Body::run, &g_body, "kept", 0, nPolicy, nPriority, true);
    return log.text();
}

std::string failureOf(const char* pCall)
{
    return std::string("[error] [Thread.cpp ] [create] ") + pCall + " failed! " + strerror(EINVAL) +
           "\n";
}

} // namespace

TEST(ThreadSmallLibrary, PolicyThatThereIsNotIsRefused)
{
    EXPECT_EQ(failureOf("pthread_attr_setschedpolicy"), logOfCreation(12345, 0));
}

TEST(ThreadSmallLibrary, PriorityThatThePolicyDoesNotHaveIsRefused)
{
    EXPECT_EQ(failureOf("pthread_attr_setschedParam"), logOfCreation(SCHED_OTHER, 77)); // sic
}
