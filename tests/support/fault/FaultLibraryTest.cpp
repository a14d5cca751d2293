// The failing calls themselves: what fails, which time, and what is left alone.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "Eventually.h"
#include "Fault.h"

namespace {

void* allocate(size_t uSize)
{
    void* volatile pBlock = malloc(uSize); // volatile: or the compiler drops the pair
    return pBlock;
}

} // namespace

TEST(FaultLibrary, OnlyTheChosenCallFails)
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

TEST(FaultLibrary, CallIsHeldUntilThePlanEnds)
{
    std::atomic<bool> bDone{false};
    std::thread held;
    {
        FaultScope fault("access=/:1:HOLD");
        held = std::thread([&bDone] {
            EXPECT_EQ(0, access("/", F_OK));
            bDone = true;
        });
        EXPECT_TRUE(eventually([] { return 1 == faultHits(); }));

        EXPECT_EQ(0, access("/", F_OK)) << "the second one is not";
        EXPECT_FALSE(bDone);
    }
    held.join();
}

TEST(FaultLibrary, AllocationOfThatSizeFails)
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

TEST(FaultLibrary, FailingMallocMakesNewThrow)
{
    FaultScope fault("malloc>=4321:1-:ENOMEM");

    std::string strText;
    EXPECT_THROW(strText.assign(5000, 'x'), std::bad_alloc);
    EXPECT_EQ(2u, std::string(2, 'x').size());
}

TEST(FaultLibrary, AllocationsFromASizeOnFail)
{
    FaultScope fault("malloc>=4321:2:ENOMEM");

    void* apBlock[] = {allocate(4320), allocate(4321), allocate(4320), allocate(9000),
                       allocate(9000)};

    EXPECT_EQ(1u, faultHits());
    EXPECT_EQ(nullptr, apBlock[3]);
    for (void* pBlock : apBlock) {
        free(pBlock);
    }
}

TEST(FaultLibrary, SpacedCallsFailWithTheErrorsByTurns)
{
    FaultScope fault("access:2/3-8:EIO,ENOMEM");
    ASSERT_EQ(0, fault.result());
    std::string strErrors;

    for (int i = 1; i <= 12; ++i) {
        errno = 0;
        (void)access("/", F_OK);
        strErrors += std::to_string(errno) + " ";
    }

    const std::string strIo = std::to_string(EIO);
    EXPECT_EQ("0 " + strIo + " 0 0 " + std::to_string(ENOMEM) + " 0 0 " + strIo + " 0 0 0 0 ",
              strErrors);
}

TEST(FaultLibrary, DescriptorFilterLeavesOthersAlone)
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

TEST(FaultLibrary, PathFilterIsAPrefix)
{
    FaultScope fault("fopen=/dev/nu:1-:EACCES");

    EXPECT_EQ(nullptr, fopen("/dev/null", "r"));
    EXPECT_EQ(EACCES, errno);
    FILE* pOther = fopen("/dev/zero", "r");
    ASSERT_NE(nullptr, pOther);
    fclose(pOther);
}

TEST(FaultLibrary, PthreadCallReturnsItsError)
{
    FaultScope fault("pthread_create:1:EAGAIN");
    pthread_t thread{};

    EXPECT_EQ(EAGAIN, pthread_create(
                          &thread, nullptr, [](void* p) { return p; }, nullptr));
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr, [](void* p) { return p; }, nullptr));
    EXPECT_EQ(0, pthread_join(thread, nullptr));
}

TEST(FaultLibrary, BadPlanIsRefusedAndChangesNothing)
{
    for (const char* pPlan : {"fork", "fork:1", "fork:0:EAGAIN", "fork:x:EAGAIN", "fork:1:EWHAT",
                              ":1:EAGAIN", "fork:3-2:EAGAIN", "fork:1/0:EAGAIN", "fork:1/x:EAGAIN",
                              "fork:1:EAGAIN,", "fork:1:EAGAIN,EWHAT", ">=5:1:EAGAIN"}) {
        FaultScope fault(pPlan);

        EXPECT_EQ(-1, fault.result()) << pPlan;
        const int nFd = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_GE(nFd, 0);
        close(nFd);
        EXPECT_EQ(0u, faultHits());
    }
}

TEST(FaultLibrary, AllocationsOfThisThreadAreCounted)
{
    const unsigned long ulBefore = faultThreadAllocations();

    free(allocate(10));
    free(allocate(10));

    EXPECT_EQ(2u, faultThreadAllocations() - ulBefore);
}

TEST(FaultLibrary, PreloadedPlanReachesTheNamedProgramOnly)
{
    const std::string strCommand =
        "LD_PRELOAD=" FAULT_PRELOAD " KESTREL_FAULT=open=/dev/null:1-:EMFILE"
        " KESTREL_FAULT_PROGRAM=cat sh -c 'cat /dev/null; echo $?; head -c 0 /dev/null; echo $?'";

    const ChildResult result = runChild({"/bin/sh", "-c", strCommand});

    EXPECT_EQ("1\n0\n", result.strOutput);
    EXPECT_NE(std::string::npos, result.strError.find("/dev/null: Too many open files"))
        << result.strError;
}

TEST(FaultLibrary, ReportTellsMatchedAndFailedCallsAlsoAfterACrash)
{
    char acPath[] = "/tmp/kestrel-fault.XXXXXX";
    close(mkstemp(acPath));
    const std::string strCommand =
        std::string("LD_PRELOAD=" FAULT_PRELOAD
                    " KESTREL_FAULT_PROGRAM=cat KESTREL_FAULT_REPORT=") +
        acPath + " KESTREL_FAULT='open=/nowhere:1-:EIO;open=/dev/null:2-3:EMFILE'" +
        " cat /dev/null /dev/null /dev/null /dev/null";

    (void)runChild({"/bin/sh", "-c", strCommand});

    unsigned auCount[4] = {};
    FILE* pReport = fopen(acPath, "rb");
    ASSERT_NE(nullptr, pReport);
    EXPECT_EQ(4u, fread(auCount, sizeof(auCount[0]), 4, pReport));
    fclose(pReport);
    unlink(acPath);
    EXPECT_EQ(0u, auCount[0]);
    EXPECT_EQ(0u, auCount[1]);
    EXPECT_EQ(4u, auCount[2]);
    EXPECT_EQ(2u, auCount[3]);
}

TEST(FaultLibrary, CallsOfAnExceptedLibraryAreNotSeen)
{
    // The C library itself asks for the buffer that a folder is read into.
    const std::string strPlan = "LD_PRELOAD=" FAULT_PRELOAD " KESTREL_FAULT_PROGRAM=ls"
                                " KESTREL_FAULT='malloc>=32768:1-:ENOMEM' ";

    const ChildResult failed = runChild({"/bin/sh", "-c", strPlan + "ls /"});
    const ChildResult excepted =
        runChild({"/bin/sh", "-c", strPlan + "KESTREL_FAULT_EXCEPT=libnone:libc.so ls /"});

    EXPECT_EQ(2, failed.nStatus) << failed.strOutput;
    EXPECT_EQ(0, excepted.nStatus) << excepted.strError;
}

TEST(FaultLibrary, SleepsOfAHurriedProgramAreShort)
{
    const std::string strCommand =
        "LD_PRELOAD=" FAULT_PRELOAD " KESTREL_FAULT=setsid:1:EIO KESTREL_FAULT_PROGRAM=python3"
        " KESTREL_FAULT_HURRY=100000"
        " timeout 10 python3 -c 'import select; select.select([], [], [], 3600)'";

    EXPECT_EQ(0, runChild({"/bin/sh", "-c", strCommand}).nStatus);
}

TEST(FaultLibrary, OperatorNewOfAPreloadedProgramHasANameOfItsOwn)
{
    const std::string strPlan = "LD_PRELOAD=" FAULT_PRELOAD " KESTREL_FAULT_PROGRAM=cmake";
    const std::string strRun = " " CXX_PROGRAM " --version";

    const ChildResult failed = runChild(
        {"/bin/sh", "-c", strPlan + " KESTREL_FAULT='new=4321:1-:ENOMEM;new:2-:ENOMEM'" + strRun});
    const ChildResult others =
        runChild({"/bin/sh", "-c", strPlan + " KESTREL_FAULT='new=4321:1-:ENOMEM'" + strRun});

    EXPECT_NE(std::string::npos, failed.strError.find("std::bad_alloc")) << failed.strError;
    EXPECT_EQ(0, others.nStatus) << others.strError;
}
