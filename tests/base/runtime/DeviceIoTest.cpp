// Waiting for descriptors of any number, and ioctl, beside signals.
#include "DeviceIo.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Fault.h"
#include "StandardInputAside.h"
#include "Time.h"

static nfds_t g_nPolled = 0; // by the last poll

// The linker gives the program's calls to the second.
extern "C" int __real_poll(pollfd* pEntries, nfds_t nCount, int nTimeoutMs);

extern "C" int __wrap_poll(pollfd* pEntries, nfds_t nCount, int nTimeoutMs)
{
    g_nPolled = nCount;
    return __real_poll(pEntries, nCount, nTimeoutMs);
}

namespace {

class Pipe
{
public:
    Pipe()
    {
        EXPECT_EQ(0, pipe2(m_anFd, O_CLOEXEC | O_NONBLOCK));
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe()
    {
        close(m_anFd[0]);
        close(m_anFd[1]);
    }
    int reader() const
    {
        return m_anFd[0];
    }
    int writer() const
    {
        return m_anFd[1];
    }
    void fill() const
    {
        const char acBlock[4096] = {0};
        while (write(writer(), acBlock, sizeof(acBlock)) > 0) {
        }
    }

private:
    int m_anFd[2] = {-1, -1};
};

} // namespace

TEST(DeviceIo, WaitReadableEndsWithTheTimeOut)
{
    const Pipe pipe;
    const Time before = monotonicNow();

    EXPECT_FALSE(waitReadable(pipe.reader(), 0, 20000));

    EXPECT_GE(monotonicNow() - before, Time(0, 20000));
}

TEST(DeviceIo, ReadableAndWritableAreSeenAtOnce)
{
    const Pipe pipe;
    EXPECT_TRUE(waitWritable(pipe.writer(), 0, 0));
    ASSERT_EQ(1, write(pipe.writer(), "x", 1));

    EXPECT_TRUE(waitReadable(pipe.reader(), 0, 0));

    EXPECT_EQ(1u, g_nPolled) << "there is nothing behind the one";
}

TEST(DeviceIo, FullPipeIsNotWritable)
{
    const Pipe pipe;
    pipe.fill();

    EXPECT_FALSE(waitWritable(pipe.writer(), 0, 1000));
}

TEST(DeviceIo, ClosedOrNegativeDescriptorCountsAsReady)
{
    int nClosed = -1;
    {
        const Pipe pipe;
        nClosed = pipe.reader();
    }

    EXPECT_TRUE(waitReadable(nClosed, 10, 0));
    EXPECT_TRUE(waitReadable(-1, 10, 0));
    EXPECT_TRUE(waitWritable(-1, 10, 0));
}

TEST(DeviceIo, DescriptorsAbove1023AreWaitedFor)
{
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const rlimit old = limit;
    limit.rlim_cur = 2048;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    const Pipe pipe;
    const int nHigh = fcntl(pipe.reader(), F_DUPFD_CLOEXEC, 1500);
    ASSERT_GE(nHigh, 1500);

    EXPECT_FALSE(waitReadable(nHigh, 0, 1000));
    ASSERT_EQ(1, write(pipe.writer(), "x", 1));
    EXPECT_TRUE(waitReadable(nHigh, 0, 1000));

    close(nHigh);
    (void)setrlimit(RLIMIT_NOFILE, &old);
}

TEST(DeviceIo, DescriptorZeroIsWaitedFor)
{
    const Pipe pipe;
    const StandardInputAside aside;
    ASSERT_EQ(0, dup2(pipe.reader(), 0));

    EXPECT_FALSE(waitReadable(0, 0, 1000));
}

TEST(DeviceIo, TimesAreRoundedUpToMilliseconds)
{
    const Pipe pipe;
    const FaultScope fault("poll:1-:ENOMEM"); // none of them is waited for
    const CallJournal journal("poll");

    for (const auto& [u32Seconds, u32Microseconds] :
         std::vector<std::pair<uint32_t, uint32_t>>{{0, 0},
                                                    {0, 1},
                                                    {0, 1000},
                                                    {0, 1001},
                                                    {2, 5000},
                                                    {0, UINT32_MAX},
                                                    {2147483, 647001},
                                                    {UINT32_MAX, 0}}) {
        EXPECT_TRUE(waitReadable(pipe.reader(), u32Seconds, u32Microseconds));
    }

    EXPECT_EQ((std::vector<std::string>{"poll 0", "poll 1", "poll 1", "poll 2", "poll 2005",
                                        "poll 4294968", "poll 2147483647", "poll 2147483647"}),
              CallJournal::lines());
}

TEST(DeviceIo, SignalsDoNotEndTheWait)
{
    const Pipe pipe;
    FaultScope fault("poll:1-3:EINTR");

    EXPECT_FALSE(waitReadable(pipe.reader(), 0, 1000));

    EXPECT_EQ(3u, faultHits());
}

TEST(DeviceIo, DeliberateSignalBeginsTheWholeWaitAnew)
{
    const Pipe pipe;
    struct sigaction action
    {
    };
    struct sigaction old
    {
    };
    action.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGALRM, &action, &old));
    itimerval once{};
    once.it_value.tv_usec = 200000;
    const Time before = monotonicNow();
    ASSERT_EQ(0, setitimer(ITIMER_REAL, &once, nullptr));

    EXPECT_FALSE(waitReadable(pipe.reader(), 0, 300000));

    EXPECT_GE(monotonicNow() - before, Time(0, 500000));
    ASSERT_EQ(0, sigaction(SIGALRM, &old, nullptr));
}

TEST(DeviceIo, AnotherErrorOfTheWaitCountsAsReady)
{
    const Pipe pipe;
    FaultScope fault("poll:1:ENOMEM");

    EXPECT_TRUE(waitReadable(pipe.reader(), 10, 0));
}

TEST(DeviceIo, IoctlIsRepeatedAfterASignal)
{
    const Pipe pipe;
    ASSERT_EQ(3, write(pipe.writer(), "abc", 3));
    FaultScope fault("ioctl:1-2:EINTR");
    int nBytes = 0;

    EXPECT_EQ(0, ioctlRetry(pipe.reader(), FIONREAD, &nBytes));

    EXPECT_EQ(3, nBytes);
    EXPECT_EQ(2u, faultHits());
}

TEST(DeviceIo, IoctlReturnsOtherErrors)
{
    const Pipe pipe;
    FaultScope fault("ioctl:1:EIO");
    int nBytes = 0;

    EXPECT_EQ(-1, ioctlRetry(pipe.reader(), FIONREAD, &nBytes));

    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(1u, faultHits());
}
