// EPoll: the reactor's thread and its descriptors.
#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "CallJournal.h"
#include "EPoll.h"
#include "EPollRecorder.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "TcpClient.h"
#include "Threads.h"

TEST(EPollThread, ThreadDispatchesBetweenStartAndStop)
{
    EPoll epoll(20, "my reactor");
    Recorder recorder(epoll);
    NetPair pair;
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLIN | EPOLLET, nullptr));

    EXPECT_EQ(0, epoll.start());
    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    EXPECT_TRUE(eventually([&] { return 1 == recorder.m_nCalls; }));
    EXPECT_NE(static_cast<int>(getpid()), recorder.m_nTid.load());

    EXPECT_EQ(0, epoll.stop());
    EPoll other(20, "other reactor"); // that the kernel has reported to, when it has its call
    Recorder witness(other);
    ASSERT_EQ(0, other.addFd(pair.m_near.getFd(), EPOLLIN | EPOLLET, nullptr));
    EXPECT_EQ(0, other.start());
    ASSERT_TRUE(eventually([&] { return 1 == witness.m_nCalls; })); // still readable
    ASSERT_EQ(1, send(pair.m_far.getFd(), "y", 1, 0));
    ASSERT_TRUE(eventually([&] { return 2 == witness.m_nCalls; }));
    EXPECT_EQ(1, recorder.m_nCalls.load());
    EXPECT_EQ(0, epoll.start());
    EXPECT_TRUE(eventually([&] { return 2 == recorder.m_nCalls; }));
    EXPECT_EQ(0, epoll.stop());
    EXPECT_EQ(0, other.stop());
}

TEST(EPollThread, ReactorIsWaitedForAndAsNiceAsItsMaker)
{
    const CallJournal journal("pthread_create");
    EPoll epoll(20, "nice reactor");
    EXPECT_EQ(std::vector<std::string>{"pthread_create joinable"}, CallJournal::lines());
    Recorder recorder(epoll);
    NetPair pair;
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLIN | EPOLLET, nullptr));

    EXPECT_EQ(0, epoll.start());
    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    ASSERT_TRUE(eventually([&] { return 1 == recorder.m_nCalls; }));
    const int nNice = getpriority(PRIO_PROCESS, static_cast<id_t>(recorder.m_nTid.load()));
    EXPECT_EQ(0, epoll.stop());

    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), nNice);
}

TEST(EPollThread, StopWaitsForTheHandlerUnderWay)
{
    struct Holder
    {
        RET_E onIn(Event*)
        {
            bInside = true;
            EXPECT_TRUE(eventually([this] { return bMayLeave.load(); }));
            return RET_SUCCESS;
        }
        std::atomic<bool> bInside{false};
        std::atomic<bool> bMayLeave{false};
    } holder;
    EPoll epoll(20);
    ASSERT_EQ(RET_SUCCESS, epoll.setInHandler(&holder, &Holder::onIn));
    NetPair pair;
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLIN | EPOLLET, nullptr));
    ASSERT_EQ(0, epoll.start());
    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    ASSERT_TRUE(eventually([&] { return holder.bInside.load(); }));
    const CallJournal journal("select");
    std::atomic<bool> bStopped{false};
    std::thread stopper([&] {
        prctl(PR_SET_NAME, "stopper", 0, 0, 0);
        EXPECT_EQ(0, epoll.stop());
        bStopped = true;
    });

    EXPECT_TRUE(eventually([&] { return bStopped || CallJournal::lines("stopper").size() >= 3; }));

    EXPECT_FALSE(bStopped) << "the handler is still running";
    holder.bMayLeave = true;
    stopper.join();
}

TEST(EPollThread, ItsEndWaitsForTheHandlerUnderWay)
{
    struct Holder
    {
        RET_E onIn(Event*)
        {
            bInside = true;
            EXPECT_TRUE(eventually([this] { return bMayLeave.load(); }));
            return RET_SUCCESS;
        }
        std::atomic<bool> bInside{false};
        std::atomic<bool> bMayLeave{false};
    } holder;
    const auto before = epollFds();
    auto pEPoll = std::make_unique<EPoll>(20);
    ASSERT_EQ(RET_SUCCESS, pEPoll->setInHandler(&holder, &Holder::onIn));
    NetPair pair;
    ASSERT_EQ(0, pEPoll->addFd(pair.m_near.getFd(), EPOLLIN | EPOLLET, nullptr));
    ASSERT_EQ(0, pEPoll->start());
    ASSERT_EQ(1, send(pair.m_far.getFd(), "x", 1, 0));
    ASSERT_TRUE(eventually([&] { return holder.bInside.load(); }));
    const CallJournal journal("select");
    std::thread ending([&] {
        prctl(PR_SET_NAME, "ending", 0, 0, 0);
        pEPoll.reset();
    });

    EXPECT_TRUE(eventually([&] { return CallJournal::lines("ending").size() >= 3; }));

    EXPECT_EQ(before.size() + 1, epollFds().size()) << "the handler may still use it";
    holder.bMayLeave = true;
    ending.join();
    EXPECT_EQ(before, epollFds());
}

TEST(EPollThread, HandlersGoWithIt)
{
    const auto live = [] {
        EPoll epoll(20);
        const Recorder recorder(epoll);
    };
    const LogCapture quiet;
    live();
    Log::getInstance().setLevel(0); // the capture would grow
    live();
    const size_t uBefore = allocatedBytes();

    for (int i = 0; i < 50; ++i) {
        live();
    }

    EXPECT_GT(uBefore + 2000, allocatedBytes()); // six handlers take more than forty bytes
}

TEST(EPollThread, ThreadBearsTheName)
{
    const int nBefore = countThreads("epoll");
    EPoll named(20, "reactor");
    EPoll unnamed(20);
    EXPECT_EQ(1, countThreads("reactor"));
    EXPECT_EQ(nBefore + 1, countThreads("epoll"));
}

TEST(EPollThread, DescriptorZeroIsClosedAtTheEndToo)
{
    const ZeroIsFree zero;
    {
        const EPoll epoll(20);
        EXPECT_EQ(1U, epollFds().count(0));
    }
    EXPECT_FALSE(isOpen(0));
}

TEST(EPollThread, DescriptorIsCloseOnExecAndClosedAtTheEnd)
{
    const auto before = epollFds();
    {
        EPoll epoll(20);
        auto during = epollFds();
        for (const auto& [nFd, strTarget] : before) {
            during.erase(nFd);
        }
        ASSERT_EQ(1U, during.size());
        EXPECT_NE(0, fcntl(during.begin()->first, F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_EQ(before, epollFds());
}
