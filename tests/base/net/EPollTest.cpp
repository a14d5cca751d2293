// EPoll: waits, and the order in which they are dispatched.
#include "EPoll.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>
#include <string>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "EPollRecorder.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "TcpClient.h"
#include "WaitAnswer.h"

TEST(EPoll, ReadinessIsDispatchedInOrder)
{
    EPoll epoll(20);
    Recorder recorder(epoll);
    NetPair pair;
    breakWithUrgentData(pair);
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), ALL, nullptr));

    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(Names({"in", "out", "err", "hup", "pri"}), recorder.takeNames());
}

TEST(EPoll, ReadinessReachesItsOwnHandlerOnly)
{
    const std::map<uint32_t, std::string> mapName = {{EPOLLIN, "in"},
                                                     {EPOLLOUT, "out"},
                                                     {EPOLLERR, "err"},
                                                     {EPOLLHUP, "hup"},
                                                     {EPOLLPRI, "pri"}};
    for (const auto& [u32Mask, strName] : mapName) {
        EPoll epoll(20);
        Recorder recorder(epoll);
        NetPair pair;
        ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLOUT, nullptr));
        const uint32_t u32Reported = u32Mask;
        const WaitAnswer answer(
            [u32Reported](epoll_event* pEvents, int) { pEvents[0].events = u32Reported; });

        EXPECT_EQ(0, epoll.pollOnce());

        EXPECT_EQ(Names({strName}), recorder.takeNames());
    }
}

TEST(EPoll, NonZeroResultFinishesTheEntry)
{
    EPoll epoll(20);
    Recorder recorder(epoll);
    NetPair pair;
    breakWithUrgentData(pair);
    const Names all = {"in", "out", "err", "hup", "pri"};
    for (size_t i = 0; i < all.size(); ++i) {
        ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), ALL, nullptr));
        recorder.m_strFinishes = all[i];

        EXPECT_EQ(0, epoll.pollOnce());

        EXPECT_EQ(Names(all.begin(), all.begin() + static_cast<ptrdiff_t>(i) + 1),
                  recorder.takeNames());
        ASSERT_EQ(0, epoll.deleteFd(pair.m_near.getFd(), recorder.m_ppClient));
    }
}

TEST(EPoll, KindsWithoutAHandlerAreIgnored)
{
    const Names all = {"in", "out", "err", "hup", "pri"};
    for (const std::string& strOmitted : all) {
        std::set<std::string> names(all.begin(), all.end());
        names.erase(strOmitted);
        EPoll epoll(20);
        Recorder recorder(epoll, names);
        NetPair pair;
        breakWithUrgentData(pair);
        ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), ALL, nullptr));

        EXPECT_EQ(0, epoll.pollOnce());

        Names expected = all;
        expected.erase(std::find(expected.begin(), expected.end(), strOmitted));
        EXPECT_EQ(expected, recorder.takeNames());
    }
}

TEST(EPoll, WithoutHandlersNothingIsCalled)
{
    EPoll epoll(20);
    NetPair pair;
    breakWithUrgentData(pair);
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), ALL, nullptr));

    EXPECT_EQ(0, epoll.pollOnce());
}

TEST(EPoll, EntryWithoutARegistrationIsSkipped)
{
    const auto before = epollFds();
    EPoll epoll(20);
    Recorder recorder(epoll);
    int nEPollFd = -1;
    for (const auto& [nFd, strTarget] : epollFds()) {
        nEPollFd = (0 == before.count(nFd)) ? nFd : nEPollFd;
    }
    NetPair nobodys;
    breakWithUrgentData(nobodys);
    epoll_event event{};
    event.events = ALL;
    event.data.ptr = nullptr;
    ASSERT_EQ(0, epoll_ctl(nEPollFd, EPOLL_CTL_ADD, nobodys.m_near.getFd(), &event));
    NetPair pair;
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), ALL, nullptr));

    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(Names({"out"}), recorder.takeNames());
    EXPECT_EQ(pair.m_near.getFd(), recorder.m_nFd);
}

TEST(EPoll, InEventOfTheAcceptDescriptorGoesToTheAcceptHandlerOnly)
{
    EPoll epoll(20);
    Recorder recorder(epoll);
    NetPair listener; // any readable descriptor will do
    NetPair other;
    ASSERT_EQ(1, send(listener.m_far.getFd(), "x", 1, 0));
    ASSERT_TRUE(listener.m_near.waitReadable(Time(30, 0)));
    epoll.setAcceptFd(listener.m_near.getFd());
    ASSERT_EQ(0, epoll.addFd(listener.m_near.getFd(), EPOLLIN | EPOLLOUT, nullptr));

    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(Names({"accept", "out"}), recorder.takeNames()); // zero: the dispatch goes on

    recorder.m_strFinishes = "accept";
    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(Names({"accept"}), recorder.takeNames());
}

TEST(EPoll, WithoutAnAcceptHandlerTheInHandlerGetsTheAcceptDescriptor)
{
    EPoll epoll(20);
    Recorder recorder(epoll, {"in"});
    NetPair listener;
    ASSERT_EQ(1, send(listener.m_far.getFd(), "x", 1, 0));
    ASSERT_TRUE(listener.m_near.waitReadable(Time(30, 0)));
    epoll.setAcceptFd(listener.m_near.getFd());
    ASSERT_EQ(0, epoll.addFd(listener.m_near.getFd(), EPOLLIN, nullptr));

    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(Names({"in"}), recorder.takeNames());
}

TEST(EPoll, EventsCarryDescriptorAndOwner)
{
    EPoll epoll(20);
    Recorder recorder(epoll);
    NetPair pair;
    TcpClient owner;
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLOUT, &owner));

    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(pair.m_near.getFd(), recorder.m_nFd);
    ASSERT_NE(nullptr, recorder.m_ppClient);
    EXPECT_EQ(&owner, *recorder.m_ppClient);

    *recorder.m_ppClient = nullptr; // stays so
    TcpClient** ppFirst = recorder.m_ppClient;
    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(ppFirst, recorder.m_ppClient);
    EXPECT_EQ(nullptr, *recorder.m_ppClient);
}

// The kernel's record of a readiness has another size and alignment on the board than on a large
// machine: the second entry of a wait is the first that would show it.
TEST(EPoll, EveryEntryOfOneWaitHasItsOwnOwner)
{
    struct Owners
    {
        RET_E onOut(Event* pEvent)
        {
            auto* pReady = dynamic_cast<EPollEvent*>(pEvent);
            m_mapOwner[*pReady->m_pFd] = *pReady->m_ppClient;
            return RET_SUCCESS;
        }
        std::map<int, TcpClient*> m_mapOwner;
    } owners;
    EPoll epoll(20);
    EXPECT_EQ(RET_SUCCESS, epoll.setOutHandler(&owners, &Owners::onOut));
    NetPair aPair[3];
    TcpClient aOwner[3];
    std::map<int, TcpClient*> mapExpected;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(0, epoll.addFd(aPair[i].m_near.getFd(), EPOLLOUT, &aOwner[i]));
        mapExpected[aPair[i].m_near.getFd()] = &aOwner[i];
    }

    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(mapExpected, owners.m_mapOwner);
}

TEST(EPoll, OneWaitTakesNoMoreThanTheMaximum)
{
    EPoll epoll(1);
    Recorder recorder(epoll);
    NetPair pair;
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLOUT | EPOLLET, nullptr));
    ASSERT_EQ(0, epoll.addFd(pair.m_far.getFd(), EPOLLOUT | EPOLLET, nullptr));

    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(Names({"out"}), recorder.takeNames());
    const int nFirst = recorder.m_nFd;
    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(Names({"out"}), recorder.takeNames());
    EXPECT_NE(nFirst, recorder.m_nFd);
}

TEST(EPoll, WaitIsForItsMaximumAndASecond)
{
    EPoll epoll(7);
    const FaultScope fault("epoll_wait:1:EINTR"); // or it would last
    const CallJournal journal("epoll_wait select");

    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(Lines{"epoll_wait 7 1000"}, CallJournal::lines());
}

TEST(EPoll, FailedWaitDispatchesNothing)
{
    EPoll epoll(20);
    Recorder recorder(epoll);
    NetPair pair;
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLOUT, nullptr));
    LogCapture log;

    FaultScope fault("epoll_wait:1:EINTR;epoll_wait:1:EBADF");
    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(Names(), recorder.takeNames());
    EXPECT_EQ(2U, faultHits());

    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(Names({"out"}), recorder.takeNames());
    EXPECT_EQ(Lines(), takeLines(log));
}

TEST(EPoll, DeliberatePauseAfterAFailedWait)
{
    EPoll epoll(20);
    const FaultScope fault("epoll_wait:1-:EBADF");
    const CallJournal journal("epoll_wait select");

    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(
        (Lines{"epoll_wait 20 1000", "select 0.010000", "epoll_wait 20 1000", "select 0.010000"}),
        CallJournal::lines());
}

TEST(EPoll, NoPauseFollowsAWaitThatFoundNothing)
{
    EPoll epoll(20);
    const CallJournal journal("epoll_wait select");
    errno = EBADF; // of something else

    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(Lines{"epoll_wait 20 1000"}, CallJournal::lines());
}

TEST(EPoll, InterruptedWaitIsRepeatedAtOnce)
{
    EPoll epoll(20);
    const FaultScope fault("epoll_wait:1-:EINTR");
    const CallJournal journal("epoll_wait select");

    EXPECT_EQ(0, epoll.pollOnce());
    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ((Lines{"epoll_wait 20 1000", "epoll_wait 20 1000"}), CallJournal::lines());
}

TEST(EPoll, HandlerSetAgainReplacesTheFirst)
{
    EPoll epoll(20);
    Recorder first(epoll);
    Recorder second(epoll);
    NetPair pair;
    ASSERT_EQ(0, epoll.addFd(pair.m_near.getFd(), EPOLLOUT, nullptr));

    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(Names(), first.takeNames());
    EXPECT_EQ(Names({"out"}), second.takeNames());
}
