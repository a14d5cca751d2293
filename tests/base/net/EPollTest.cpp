// EPoll: registration, dispatch order, and the reactor's thread.
#include "EPoll.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "CallJournal.h"
#include "Descriptors.h"
#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "NetPair.h"
#include "TcpClient.h"
#include "Threads.h"

namespace {

using Lines = std::vector<std::string>;
using Names = std::vector<std::string>;

const uint32_t ALL = EPOLLIN | EPOLLPRI | EPOLLOUT | EPOLLET;

/** Handlers that note their calls and return the results set for them. */
class Recorder
{
public:
    /** Sets the handlers named, or all of them. */
    explicit Recorder(EPoll& epoll, const std::set<std::string>& names = {"accept", "in", "out",
                                                                          "pri", "err", "hup"})
    {
        const auto wanted = [&](const char* pName) { return 0 != names.count(pName); };
        if (wanted("accept")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setAcceptHandler(this, &Recorder::onAccept));
        }
        if (wanted("in")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setInHandler(this, &Recorder::onIn));
        }
        if (wanted("out")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setOutHandler(this, &Recorder::onOut));
        }
        if (wanted("pri")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setPriHandler(this, &Recorder::onPri));
        }
        if (wanted("err")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setErrHandler(this, &Recorder::onErr));
        }
        if (wanted("hup")) {
            EXPECT_EQ(RET_SUCCESS, epoll.setHupHandler(this, &Recorder::onHup));
        }
    }

    RET_E onAccept(Event* pEvent)
    {
        return note("accept", 1, pEvent);
    }
    RET_E onIn(Event* pEvent)
    {
        return note("in", 1, pEvent);
    }
    RET_E onOut(Event* pEvent)
    {
        return note("out", 4, pEvent);
    }
    RET_E onPri(Event* pEvent)
    {
        return note("pri", 2, pEvent);
    }
    RET_E onErr(Event* pEvent)
    {
        return note("err", 8, pEvent);
    }
    RET_E onHup(Event* pEvent)
    {
        return note("hup", 16, pEvent);
    }

    Names takeNames()
    {
        Names result;
        result.swap(m_vecName);
        return result;
    }

    std::string m_strFinishes; // the handler that returns non-zero
    int m_nFd = -1;            // of the last event
    TcpClient** m_ppClient = nullptr;
    std::atomic<int> m_nCalls{0};
    std::atomic<int> m_nTid{0};

private:
    RET_E note(const char* pName, uint32_t u32Mask, Event* pEvent)
    {
        const auto& event = dynamic_cast<EPollEvent&>(*pEvent);
        EXPECT_EQ(u32Mask, event.m_u32Mask);
        m_vecName.emplace_back(pName);
        m_nFd = *event.m_pFd;
        m_ppClient = event.m_ppClient;
        m_nTid = static_cast<int>(syscall(SYS_gettid));
        ++m_nCalls;
        return (m_strFinishes == pName) ? RET_FAILED : RET_SUCCESS;
    }

    Names m_vecName;
};

/** The epoll descriptors that this process has. */
std::map<int, std::string> epollFds()
{
    return openDescriptors("anon_inode:[eventpoll]");
}

/** Make the near end ready for everything: data, urgent data, reset by its peer. */
void breakWithUrgentData(NetPair& pair)
{
    ASSERT_EQ(2, send(pair.m_far.getFd(), "ab", 2, MSG_OOB));
    ASSERT_TRUE(eventually([&] { return 7 == pair.m_near.checkState(); }));
    ASSERT_EQ(0, pair.m_far.setOptLinger(true, 0)); // closing then resets
    ASSERT_EQ(0, pair.m_far.close());
    pollfd entry{pair.m_near.getFd(), POLLIN, 0};
    ASSERT_TRUE(
        eventually([&] { return 1 == poll(&entry, 1, 1000) && 0 != (entry.revents & POLLHUP); }));
}

} // namespace

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

TEST(EPoll, AddFdReportsTheNamedFailures)
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

TEST(EPoll, AddFdFailsForWhatTheKernelRefuses)
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

TEST(EPoll, AddFdCountsAnyOtherFailureAsSuccess)
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

TEST(EPoll, WithoutAnEPollDescriptorAddFdFails)
{
    FaultScope fault("epoll_create1:1:EMFILE");
    EPoll epoll(20);
    NetPair pair;
    LogCapture log;

    EXPECT_EQ(1, epoll.addFd(pair.m_near.getFd(), EPOLLIN, nullptr));

    EXPECT_EQ(Lines({"[debug] [EPoll ] [addFd] epoll_ctl err: Bad file descriptor\n"}),
              takeLines(log));
}

TEST(EPoll, DeleteFdUnregisters)
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

TEST(EPoll, DeleteFdFreesTheRegistration)
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

TEST(EPoll, DeleteFdOfNoDescriptorWarnsAndFreesNothing)
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

TEST(EPoll, HandlerMayDeleteWhatItIsCalledFor)
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

TEST(EPoll, HandlerMayDeleteAnotherDescriptorOfThePass)
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
    EPoll epoll(20);
    Deleter deleter{&epoll, pair.m_near.getFd(), pair.m_far.getFd()};
    ASSERT_EQ(RET_SUCCESS, epoll.setOutHandler(&deleter, &Deleter::onOut));
    ASSERT_EQ(0, epoll.addFd(deleter.nFirst, EPOLLOUT, nullptr));
    ASSERT_EQ(0, epoll.addFd(deleter.nSecond, EPOLLOUT, nullptr));
    EXPECT_EQ(0, epoll.pollOnce());
    ASSERT_EQ(2, deleter.nCalls);

    EXPECT_EQ(0, epoll.pollOnce());

    EXPECT_EQ(3, deleter.nCalls) << "the deleted one is not called";
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

TEST(EPoll, ThreadDispatchesBetweenStartAndStop)
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

TEST(EPoll, StopWaitsForTheHandlerUnderWay)
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

TEST(EPoll, HandlersGoWithIt)
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

TEST(EPoll, ThreadBearsTheName)
{
    const int nBefore = countThreads("epoll");
    EPoll named(20, "reactor");
    EPoll unnamed(20);
    EXPECT_EQ(1, countThreads("reactor"));
    EXPECT_EQ(nBefore + 1, countThreads("epoll"));
}

TEST(EPoll, DescriptorIsCloseOnExecAndClosedAtTheEnd)
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
