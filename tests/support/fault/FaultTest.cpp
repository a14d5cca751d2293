// The failing calls themselves: what fails, which time, and what goes on undisturbed.
#include "Fault.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ChildProgram.h"

namespace {

void* allocate(size_t uSize)
{
    void* volatile pBlock = malloc(uSize); // volatile: or the compiler drops the pair
    return pBlock;
}

} // namespace

TEST(Fault, OnlyTheChosenCallFails)
{
    FaultScope fault("fork:2:EAGAIN");
    ASSERT_EQ(0, fault.result());

    const pid_t first = fork();
    if (0 == first) {
        _exit(0);
    }
    EXPECT_GT(first, 0);
    EXPECT_EQ(-1, fork());
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(1u, faultHits());
    EXPECT_EQ(first, waitpid(first, nullptr, 0));
}

TEST(Fault, AllocationOfThatSizeFails)
{
    FaultScope fault("malloc=4321:1:ENOMEM");

    void* pOther = allocate(4320);
    void* pFirst = allocate(4321);
    void* pSecond = allocate(4321);

    EXPECT_NE(nullptr, pOther);
    EXPECT_EQ(nullptr, pFirst);
    EXPECT_NE(nullptr, pSecond);
    free(pOther);
    free(pSecond);
}

TEST(Fault, DescriptorFilterLeavesOthersAlone)
{
    int anPipe[2];
    int anOther[2];
    ASSERT_EQ(0, pipe(anPipe));
    ASSERT_EQ(0, pipe(anOther));
    const std::string strPlan = "write=" + std::to_string(anPipe[1]) + ":1-:ENOSPC";
    FaultScope fault(strPlan.c_str());

    EXPECT_EQ(1, write(anOther[1], "a", 1));
    EXPECT_EQ(-1, write(anPipe[1], "a", 1));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(-1, write(anPipe[1], "a", 1));

    for (const int nFd : {anPipe[0], anPipe[1], anOther[0], anOther[1]}) {
        close(nFd);
    }
}

TEST(Fault, PathFilterIsAPrefix)
{
    FaultScope fault("fopen=/dev/nu:1-:EACCES");

    EXPECT_EQ(nullptr, fopen("/dev/null", "r"));
    EXPECT_EQ(EACCES, errno);
    FILE* pOther = fopen("/dev/zero", "r");
    ASSERT_NE(nullptr, pOther);
    fclose(pOther);
}

TEST(Fault, PthreadCallReturnsItsError)
{
    FaultScope fault("pthread_create:1:EAGAIN");
    pthread_t thread{};

    EXPECT_EQ(EAGAIN, pthread_create(
                          &thread, nullptr, [](void* p) { return p; }, nullptr));
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr, [](void* p) { return p; }, nullptr));
    EXPECT_EQ(0, pthread_join(thread, nullptr));
}

TEST(Fault, BadPlanIsRefusedAndChangesNothing)
{
    for (const char* pPlan : {"fork", "fork:1", "fork:0:EAGAIN", "fork:x:EAGAIN", "fork:1:EWHAT",
                              ":1:EAGAIN", "fork:3-2:EAGAIN"}) {
        FaultScope fault(pPlan);

        EXPECT_EQ(-1, fault.result()) << pPlan;
        const int nFd = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_GE(nFd, 0);
        close(nFd);
        EXPECT_EQ(0u, faultHits());
    }
}

TEST(Fault, AllocationsOfThisThreadAreCounted)
{
    const unsigned long ulBefore = faultThreadAllocations();

    free(allocate(10));
    free(allocate(10));

    EXPECT_EQ(2u, faultThreadAllocations() - ulBefore);
}

TEST(Fault, PreloadedPlanReachesTheNamedProgramOnly)
{
    const std::string strCommand =
        "LD_PRELOAD=" FAULT_PRELOAD " KESTREL_FAULT=open=/dev/null:1-:EMFILE"
        " KESTREL_FAULT_PROGRAM=cat sh -c 'cat /dev/null; echo $?; head -c 0 /dev/null; echo $?'";

    const ChildResult result = runChild({"/bin/sh", "-c", strCommand});

    EXPECT_EQ("1\n0\n", result.strOutput);
    EXPECT_NE(std::string::npos, result.strError.find("/dev/null: Too many open files"))
        << result.strError;
}
