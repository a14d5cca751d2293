// Socket: how long it pauses between two attempts, when it gives up, and whose turn it is.
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <sys/prctl.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Eventually.h"
#include "Fault.h"
#include "NetPair.h"
#include "Socket.h"

namespace {

using Lines = std::vector<std::string>;

std::string again(const char* pCall, int nFd, const char* pWhich)
{
    return std::string(pCall) + "=" + std::to_string(nFd) + ":" + pWhich + ":EAGAIN";
}

} // namespace

TEST(SocketWait, EndlessKindsPauseThreeMilliseconds)
{
    NetPair pair;
    const int nFd = pair.m_near.getFd();
    ASSERT_EQ(3, send(pair.m_far.getFd(), "abc", 3, 0));
    char acBuffer[3];
    const FaultScope fault((again("recv", nFd, "1-3") + ";" + again("send", nFd, "1-2")).c_str());
    {
        const CallJournal journal("select");
        EXPECT_EQ(0, pair.m_near.readE(acBuffer, 3));
        EXPECT_EQ((Lines{"select 0.003000", "select 0.003000", "select 0.003000"}),
                  CallJournal::lines());
    }
    const CallJournal journal("select");
    EXPECT_EQ(0, pair.m_near.writeE("abc", 3));
    EXPECT_EQ((Lines{"select 0.003000", "select 0.003000"}), CallJournal::lines());
}

TEST(SocketWait, TimedKindsPauseFiveMilliseconds)
{
    NetPair pair;
    const int nFd = pair.m_near.getFd();
    ASSERT_EQ(3, send(pair.m_far.getFd(), "abc", 3, 0));
    char acBuffer[3];
    int nDone = 0;
    const FaultScope fault((again("recv", nFd, "1-3") + ";" + again("send", nFd, "1-2")).c_str());
    {
        const CallJournal journal("select");
        EXPECT_EQ(0, pair.m_near.readTimeOut(acBuffer, 3, nDone, nullptr, Time(60, 0)));
        EXPECT_EQ((Lines{"select 0.005000", "select 0.005000", "select 0.005000"}),
                  CallJournal::lines());
    }
    const CallJournal journal("select");
    EXPECT_EQ(0, pair.m_near.writeTimeOut("abc", 3, nDone, nullptr, Time(60, 0)));
    EXPECT_EQ((Lines{"select 0.005000", "select 0.005000"}), CallJournal::lines());
}

// A pause never ends early: after as many as fill the time-out it is over, however slow the
// machine.
TEST(SocketWait, NoPauseFollowsOnceTheTimeOutIsOver)
{
    NetPair pair;
    const int nFd = pair.m_near.getFd();
    char acBuffer[3];
    int nDone = 0;
    struct Case
    {
        Time timeout;
        size_t uMostPauses;
    };
    const Case aCase[] = {{Time(0, 0), 0}, {Time(0, 5000), 1}, {Time(0, 15000), 3}};
    const FaultScope fault((again("recv", nFd, "1-") + ";" + again("send", nFd, "1-")).c_str());
    for (const Case& entry : aCase) {
        {
            const CallJournal journal("select");
            EXPECT_EQ(-1, pair.m_near.readTimeOut(acBuffer, 3, nDone, nullptr, entry.timeout));
            EXPECT_GE(entry.uMostPauses, CallJournal::lines().size());
        }
        const CallJournal journal("select");
        EXPECT_EQ(-1, pair.m_near.writeTimeOut("abc", 3, nDone, nullptr, entry.timeout));
        EXPECT_GE(entry.uMostPauses, CallJournal::lines().size());
    }
}

TEST(SocketWait, SingleTransferWaitsForTheOperationUnderWay)
{
    NetPair pair;
    ASSERT_EQ(0, pair.m_near.setOptBlock(false));
    char cFirst = 'x';
    char cSecond = 'y';
    iovec piece{&cSecond, 1};
    int nDone = 0;
    struct Case
    {
        const char* pCall;
        const char* pFirstCall;
        std::function<int()> first;
        std::function<int()> second;
    };
    const Case aCase[] = {
        {"recv", "recv", [&] { return pair.m_near.readE(&cFirst, 1); },
         [&] { return pair.m_near.read(&cSecond, 1, nDone); }},
        {"send", "send", [&] { return pair.m_near.writeE(&cFirst, 1); },
         [&] { return pair.m_near.write(&cSecond, 1, nDone); }},
        {"sendmsg", "send", [&] { return pair.m_near.writeE(&cFirst, 1); },
         [&] { return pair.m_near.write(&piece, 1, nDone); }},
    };
    ASSERT_EQ(2, send(pair.m_far.getFd(), "ab", 2, 0));
    ASSERT_TRUE(pair.m_near.waitReadable(Time(30, 0)));
    for (const Case& entry : aCase) {
        const CallJournal journal((std::string("pthread_mutex_lock ") + entry.pCall).c_str());
        const FaultScope hold(again(entry.pFirstCall, pair.m_near.getFd(), "1-").c_str());
        std::thread first([&] { EXPECT_EQ(0, entry.first()); });
        ASSERT_TRUE(eventually([] { return faultHits() > 0; }));

        std::thread second([&] {
            prctl(PR_SET_NAME, "second", 0, 0, 0);
            EXPECT_EQ(0, entry.second());
        });

        EXPECT_TRUE(eventually([] { return !CallJournal::lines("second").empty(); }));
        // Nothing but the lock, as long as the first has it.
        EXPECT_EQ(Lines{"pthread_mutex_lock"}, CallJournal::lines("second")) << entry.pCall;
        (void)faultPlan("");
        first.join();
        second.join();
        EXPECT_EQ(1, nDone) << entry.pCall;
        EXPECT_EQ(2U, CallJournal::lines("second").size()) << "the lock, then one call";
    }
}
