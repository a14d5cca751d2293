// Subscribers that come and go on some threads while others publish.
#include "SubscriberList.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Eventually.h"
#include "SubscriberListVisitors.h"

TEST(SubscriberList, AfterRemoveTheHandlerIsNeverCalled)
{
    SubscriberList list;
    Visitor resident;
    add(list, resident);
    {
        Publisher first(list);
        Publisher second(list);
        std::vector<std::thread> vecThread;
        for (int i = 0; i < 2; ++i) {
            vecThread.emplace_back([&list] {
                for (int nRound = 0; nRound < 300; ++nRound) {
                    Visitor visitor; // its memory goes at once: a late call would hit it
                    add(list, visitor);
                    if (0 == nRound % 3) {
                        EXPECT_TRUE(eventually([&] { return visitor.m_nCalls > 0; }));
                    }
                    remove(list, visitor);
                    EXPECT_FALSE(visitor.m_bStrayCall);
                }
            });
        }
        for (std::thread& thread : vecThread) {
            thread.join();
        }
    }
    remove(list, resident);

    NumberEvent event;
    list.publish(event, PUBLISH_NESTED);

    EXPECT_GT(resident.m_nCalls, 0);
    EXPECT_FALSE(resident.m_bStrayCall);
}

TEST(SubscriberList, RemoveEndsUnderContinuousPublishing)
{
    SubscriberList list;
    Publisher first(list);
    Publisher second(list);
    Publisher third(list);

    for (int i = 0; i < 50; ++i) {
        Visitor visitor;
        add(list, visitor);
        EXPECT_TRUE(eventually([&] { return visitor.m_nCalls > 10; }));
        remove(list, visitor); // hangs the test when it starves
    }
}

TEST(SubscriberList, RemovedEntriesAreFreedWhilePublishingGoesOn)
{
    SubscriberList list;
    Publisher publisher(list);

    for (int i = 0; i < 200; ++i) {
        Visitor visitor;
        add(list, visitor);
        remove(list, visitor);
    }

    // A publisher may hold a few back, never all of them.
    Visitor last;
    EXPECT_TRUE(eventually([&] {
        add(list, last);
        remove(list, last);
        return g_nCallbacks < 10;
    }));
}

// A publisher that is there again is another visit, though it stands in the same place.
TEST(SubscriberList, EntryIsFreedOnceItsVisitorHasLeftAndAnotherHasCome)
{
    class Resident
    {
    public:
        int onEvent(Event*)
        {
            ++m_nEntered;
            EXPECT_TRUE(eventually([this] { return m_nMayLeave >= m_nEntered; }));
            return 0;
        }
        bool waitInside(int nTime) const
        {
            return eventually([this, nTime] { return m_nEntered == nTime; });
        }
        std::atomic<int> m_nEntered{0};
        std::atomic<int> m_nMayLeave{0};
    };
    const int nBefore = g_nCallbacks;
    SubscriberList list;
    Resident resident;
    Visitor early; // so that the place has been visited before
    add(list, early);
    NumberEvent earlyEvent;
    list.publish(earlyEvent, PUBLISH_NESTED);
    remove(list, early);
    list.add(std::make_unique<CB<Resident, int>>(&resident, &Resident::onEvent));
    std::thread publisher([&list] {
        NumberEvent event;
        list.publish(event, PUBLISH_NESTED);
        list.publish(event, PUBLISH_NESTED);
    });
    ASSERT_TRUE(resident.waitInside(1));
    Visitor first;
    add(list, first);
    remove(list, first);
    EXPECT_EQ(nBefore + 1, g_nCallbacks) << "the visitor may still come to it";

    resident.m_nMayLeave = 1;
    ASSERT_TRUE(resident.waitInside(2));
    Visitor second;
    add(list, second);

    EXPECT_EQ(nBefore + 1, g_nCallbacks) << "the second alone";
    resident.m_nMayLeave = 2;
    publisher.join();
}

TEST(SubscriberList, WithoutPublishersRemovedEntriesAreFreedAtOnce)
{
    SubscriberList list;
    const int nBefore = g_nCallbacks;
    Visitor visitor;

    add(list, visitor);
    EXPECT_EQ(nBefore + 1, g_nCallbacks);
    remove(list, visitor);

    EXPECT_EQ(nBefore, g_nCallbacks);
}

TEST(SubscriberList, ListIsChangedUnderTheLock)
{
    SubscriberList list;
    Visitor visitor;
    const CallJournal journal("pthread_mutex_lock");

    add(list, visitor);
    EXPECT_EQ(1U, CallJournal::lines().size());
    remove(list, visitor);

    EXPECT_EQ(3U, CallJournal::lines().size()); // for the unlinking, and for the freeing
}

TEST(SubscriberList, DestructorFreesWhatIsStillSubscribed)
{
    const int nBefore = g_nCallbacks;
    Visitor visitor;
    {
        SubscriberList list;
        add(list, visitor);
        add(list, visitor);
    }

    EXPECT_EQ(nBefore, g_nCallbacks);
}

TEST(SubscriberList, RemoveWaitsForTheRunningCall)
{
    class Sleeper
    {
    public:
        int onEvent(Event*)
        {
            m_bInside = true;
            EXPECT_TRUE(eventually([this] { return m_bMayLeave.load(); }));
            m_bLeft = true;
            return 0;
        }
        std::atomic<bool> m_bInside{false};
        std::atomic<bool> m_bMayLeave{false};
        std::atomic<bool> m_bLeft{false};
    };
    SubscriberList list;
    Sleeper sleeper;
    Visitor first;
    Visitor other;
    add(list, first);
    list.add(std::make_unique<CB<Sleeper, int>>(&sleeper, &Sleeper::onEvent));
    add(list, other);
    std::thread publisher([&list] {
        NumberEvent event;
        list.publish(event, PUBLISH_NESTED);
    });
    ASSERT_TRUE(eventually([&] { return sleeper.m_bInside.load(); }));

    remove(list, first); // other handlers: do not wait for the one that runs
    remove(list, other);
    std::atomic<bool> bRemoved{false};
    const CallJournal journal("select"); // with which it waits
    std::thread remover([&] {
        list.remove(CB<Sleeper, int>(&sleeper, &Sleeper::onEvent));
        EXPECT_TRUE(sleeper.m_bLeft);
        bRemoved = true;
    });
    EXPECT_TRUE(eventually([&] { return journalCount() > 0 || bRemoved; }));
    EXPECT_FALSE(bRemoved);
    sleeper.m_bMayLeave = true;
    publisher.join();
    remover.join();

    EXPECT_TRUE(bRemoved);
    const std::vector<std::string> vecPause = CallJournal::lines();
    EXPECT_EQ(std::vector<std::string>(vecPause.size(), "select 0.001000"), vecPause);
    EXPECT_EQ(0, other.m_nCalls); // removed before the delivery had come to it
}

TEST(SubscriberList, WhomTheNewestHandlerSubscribesGetsTheNextEvent)
{
    class Inviter
    {
    public:
        Inviter(SubscriberList& list, Visitor& guest) : m_list(list), m_guest(guest) {}
        int onEvent(Event*)
        {
            add(m_list, m_guest);
            return 0;
        }
        SubscriberList& m_list;
        Visitor& m_guest;
    };
    SubscriberList list;
    Visitor guest;
    Inviter inviter(list, guest);
    list.add(std::make_unique<CB<Inviter, int>>(&inviter, &Inviter::onEvent));
    NumberEvent event;

    list.publish(event, PUBLISH_NESTED);
    EXPECT_EQ(0, guest.m_nCalls);
    list.remove(CB<Inviter, int>(&inviter, &Inviter::onEvent));
    list.publish(event, PUBLISH_NESTED);

    EXPECT_EQ(1, guest.m_nCalls);
    remove(list, guest);
}

TEST(SubscriberList, HandlerLeavesOnItsOwnThreadWhileAnotherThreadCallsIt)
{
    class Leaver
    {
    public:
        explicit Leaver(SubscriberList& list) : m_list(list) {}
        int onEvent(Event*)
        {
            if (!m_bLeft.exchange(true)) {
                // Waits for the calls of other threads, not for its own.
                m_list.remove(CB<Leaver, int>(this, &Leaver::onEvent));
                m_bGone = true;
            } else {
                EXPECT_FALSE(m_bGone);
            }
            return 0;
        }
        SubscriberList& m_list;
        std::atomic<bool> m_bLeft{false};
        std::atomic<bool> m_bGone{false};
    };
    SubscriberList list;
    Publisher first(list);
    Publisher second(list);

    for (int i = 0; i < 100; ++i) {
        Leaver leaver(list);
        list.add(std::make_unique<CB<Leaver, int>>(&leaver, &Leaver::onEvent));
        ASSERT_TRUE(eventually([&] { return leaver.m_bGone.load(); }));
        // The remaining call on this object is the one that removed it: wait for its end.
        const unsigned nFirst = first.m_nRounds;
        const unsigned nSecond = second.m_nRounds;
        ASSERT_TRUE(
            eventually([&] { return first.m_nRounds != nFirst && second.m_nRounds != nSecond; }));
    }
}

TEST(SubscriberList, SubscribersComeWhileHandlersPublishAgain)
{
    class Echo
    {
    public:
        explicit Echo(SubscriberList& list) : m_list(list) {}
        int onEvent(Event* pEvent)
        {
            thread_local int t_nDepth = 0;
            if (t_nDepth < 2) {
                ++t_nDepth;
                m_list.publish(*pEvent, PUBLISH_NESTED);
                --t_nDepth;
            }
            ++m_nCalls;
            return 0;
        }
        SubscriberList& m_list;
        std::atomic<int> m_nCalls{0};
    };
    SubscriberList list;
    Echo echo(list);
    list.add(std::make_unique<CB<Echo, int>>(&echo, &Echo::onEvent));
    {
        Publisher first(list);
        Publisher second(list);
        for (int i = 0; i < 200; ++i) {
            Visitor visitor;
            add(list, visitor);
            remove(list, visitor);
            EXPECT_FALSE(visitor.m_bStrayCall);
        }
        EXPECT_TRUE(eventually([&] { return echo.m_nCalls > 100; }));
    }

    list.remove(CB<Echo, int>(&echo, &Echo::onEvent));
}
