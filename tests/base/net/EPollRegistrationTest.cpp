// EPoll: what is added, refused and taken out again.
#include <cerrno>
#include <cstring>
#include <map>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "EPoll.h"
#include "EPollRecorder.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "TcpClient.h"

TEST(EPollRegistration, AddFdReportsTheNamedFailures)
{
    EPoll epoll(20);
    NetPair pair;
    LogCapture log;
    for (const int nError : {EBADF, EEXIST, EINVAL, ENOENT, ENOMEM, EPERM}) {
        FaultScope fault(("epoll_ctl:1:" + std::to_string(nError)).c_str());

        EXPECT_EQ(1, epoll.addFd(pair.m_near.getFd(), EPOLLIN, nullptr));

        EXPECT_EQ(Lines({std::string("[debug] [EPoll ] [addFd] epoll_ctl err: ") +
                         strerror(nError) + "\n"}),
                  takeLines(log));
    }
}

TEST(EPollRegistration, AddFdFailsForWhatTheKernelRefuses)
{
    EPoll epoll(20);
    NetPair pair;
    const int nFile = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
    LogCapture log;

    EXPECT_EQ(1, epoll.addFd(nFile, EPOLLIN, nullptr)); // a regular file
    EXPECT_EQ(Lines({"[debug] [EPoll ] [addFd] epoll_ctl err: Operation not permitted\n"}),
              takeLines(log));
    EXPECT_EQ(1, epoll.addFd(-1, EPOLLIN, nullptr));
    EXPECT_EQ(Lines({"[debug] [EPoll ] [addFd] epoll_ctl err: Bad file descriptor\n"}),
              takeLines(log));
    EXPECT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLIN, nullptr));
    EXPECT_EQ(1, epoll.addFd(pair.m_near.getFd(), EPOLLIN, nullptr));
    EXPECT_EQ(Lines({"[debug] [EPoll ] [addFd] epoll_ctl err: File exists\n"}), takeLines(log));
    close(nFile);
}

TEST(EPollRegistration, DeliberateAddFdCountsAnyOtherFailureAsSuccess)
{
    EPoll epoll(20);
    Recorder recorder(epoll);
    NetPair pair;
    LogCapture log;
    for (const int nError : {ENOSPC, ELOOP}) {
        FaultScope fault(("epoll_ctl:1:" + std::to_string(nError)).c_str());

        EXPECT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLOUT, nullptr));

        EXPECT_EQ(1U, faultHits());
    }
    EXPECT_EQ(Lines(), takeLines(log));

    EXPECT_EQ(0, epoll.pollOnce()); // it was not registered, though
    EXPECT_EQ(Names(), recorder.takeNames());
}

TEST(EPollRegistration, WithoutAnEPollDescriptorAddFdFails)
{
    FaultScope fault("epoll_create1:1:EMFILE");
    EPoll epoll(20);
    NetPair pair;
    LogCapture log;

    EXPECT_EQ(1, epoll.addFd(pair.m_near.getFd(), EPOLLIN, nullptr));

    EXPECT_EQ(Lines({"[debug] [EPoll ] [addFd] epoll_ctl err: Bad file descriptor\n"}),
              takeLines(log));
}

TEST(EPollRegistration, DeleteFdUnregisters)
{
    EPoll epoll(20);
    Recorder recorder(epoll);
    NetPair pair;
    const int nNear = pair.m_near.getFd();
    const int nFar = pair.m_far.getFd();
    ASSERT_EQ(0, epoll.addFd(nNear, EPOLLOUT, nullptr));
    ASSERT_EQ(0, epoll.pollOnce());
    (void)recorder.takeNames();
    LogCapture log;

    EXPECT_EQ(0, epoll.deleteFd(nNear, recorder.m_ppClient));
    ASSERT_EQ(0, epoll.addFd(nFar, EPOLLOUT, nullptr));
    EXPECT_EQ(0, epoll.deleteFd(nFar, nullptr)); // the registration is freed with the reactor
    EXPECT_EQ(0, epoll.deleteFd(nFar, nullptr)); // the kernel's refusal is ignored
    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(Names(), recorder.takeNames());
    EXPECT_TRUE(isOpen(nNear));
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(EPollRegistration, DeleteFdFreesTheRegistration)
{
    EPoll epoll(20);
    Recorder recorder(epoll);
    NetPair pair;
    const int nFd = pair.m_near.getFd();
    const size_t uBefore = allocatedBytes();

    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(0, epoll.addFd(nFd, EPOLLOUT, nullptr));
        ASSERT_EQ(0, epoll.pollOnce());
        ASSERT_EQ(0, epoll.deleteFd(nFd, recorder.m_ppClient));
        (void)recorder.takeNames();
    }

    EXPECT_GT(uBefore + 10000, allocatedBytes()); // a registration has more than ten bytes
}

TEST(EPollRegistration, DeleteFdOfNoDescriptorWarnsAndFreesNothing)
{
    EPoll epoll(20);
    Recorder recorder(epoll);
    NetPair pair;
    TcpClient owner;
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLOUT, &owner));
    ASSERT_EQ(0, epoll.pollOnce());
    LogCapture log;
    const std::string strWarning = "[warn ] [EPoll ] [deleteFd] occur fd <=0 while epoll delete "
                                   "fd, this will lead to memory leak!\n";

    EXPECT_EQ(1, epoll.deleteFd(0, recorder.m_ppClient));
    EXPECT_EQ(Lines({strWarning}), takeLines(log));
    EXPECT_EQ(1, epoll.deleteFd(-1, recorder.m_ppClient));
    EXPECT_EQ(Lines({strWarning}), takeLines(log));

    EXPECT_EQ(0, epoll.pollOnce()); // still registered, still there
    EXPECT_EQ(&owner, *recorder.m_ppClient);
}

TEST(EPollRegistration, HandlerMayDeleteWhatItIsCalledFor)
{
    struct Deleter
    {
        RET_E onOut(Event* pEvent)
        {
            auto& event = dynamic_cast<EPollEvent&>(*pEvent);
            ++nCalls;
            // The descriptor is given by the registration that goes.
            EXPECT_EQ(0, pEPoll->deleteFd(*event.m_pFd, event.m_ppClient));
            return RET_FAILED;
        }
        EPoll* pEPoll;
        int nCalls;
    };
    EPoll epoll(20);
    Deleter deleter{&epoll, 0};
    Recorder recorder(epoll, {"err", "hup", "pri"});
    ASSERT_EQ(RET_SUCCESS, epoll.setOutHandler(&deleter, &Deleter::onOut));
    NetPair pair;
    breakWithUrgentData(pair);
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), ALL & ~static_cast<uint32_t>(EPOLLET), nullptr));

    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(1, deleter.nCalls);
    EXPECT_EQ(Names(), recorder.takeNames());
}

TEST(EPollRegistration, HandlerMayDeleteAnotherDescriptorOfThePass)
{
    struct Deleter
    {
        RET_E onOut(Event* pEvent)
        {
            auto& event = dynamic_cast<EPollEvent&>(*pEvent);
            const int nOther = (nFirst == *event.m_pFd) ? nSecond : nFirst;
            ++nCalls;
            if (nullptr != ppOther) { // the second pass
                EXPECT_EQ(0, pEPoll->deleteFd(nOther, mapRecord.at(nOther)));
            }
            mapRecord[*event.m_pFd] = event.m_ppClient;
            ppOther = (2 == mapRecord.size()) ? event.m_ppClient : nullptr;
            return RET_SUCCESS;
        }
        EPoll* pEPoll;
        int nFirst;
        int nSecond;
        int nCalls = 0;
        TcpClient** ppOther = nullptr;
        std::map<int, TcpClient**> mapRecord{};
    };
    NetPair pair;
    EPoll epoll(2); // full, so that AddressSanitizer sees a look beyond what the pass has
    Deleter deleter{&epoll, pair.m_near.getFd(), pair.m_far.getFd()};
    ASSERT_EQ(RET_SUCCESS, epoll.setOutHandler(&deleter, &Deleter::onOut));
    ASSERT_EQ(0, epoll.addFd(deleter.nFirst, EPOLLOUT, nullptr));
    ASSERT_EQ(0, epoll.addFd(deleter.nSecond, EPOLLOUT, nullptr));
    EXPECT_EQ(0, epoll.pollOnce());
    ASSERT_EQ(2, deleter.nCalls);

    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(3, deleter.nCalls) << "the deleted one is not called";
}

TEST(EPollRegistration, EachOwnersEventReportsNothing)
{
    class Reactor : public EPoll
    {
    public:
        using EPoll::EPoll;
        using EPoll::forEach;
    };
    Reactor reactor(20);
    NetPair pair;
    TcpClient owner;
    ASSERT_EQ(0, reactor.addFd(pair.m_near.getFd(), ALL, &owner));
    ASSERT_EQ(0, reactor.addFd(pair.m_far.getFd(), ALL, nullptr));
    int nCalls = 0;

    reactor.forEach([&](EPollEvent& event) {
        ++nCalls;
        EXPECT_EQ(0U, event.m_u32Mask);
        EXPECT_EQ(pair.m_near.getFd(), *event.m_pFd);
        EXPECT_EQ(&owner, *event.m_ppClient);
    });

    EXPECT_EQ(1, nCalls);
}

// The lowest that it takes, whatever is behind it.
TEST(EPollRegistration, DeleteFdTakesDescriptorOne)
{
    EPoll epoll(20);
    LogCapture log;

    EXPECT_EQ(0, epoll.deleteFd(1, nullptr));

    EXPECT_EQ("", log.text());
}
