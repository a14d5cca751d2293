// Subscribers that come and go on some threads while others publish.
#include "SubscriberList.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Eventually.h"

namespace {

class NumberEvent : public Event
{
};

std::atomic<int> g_nCallbacks{0}; // alive

/** What a list owns: like a bound function, but counted. */
template <class T> class CountedCB : public CB<T, int>
{
public:
    CountedCB(T* pObj, int (T::*pFunc)(Event*)) : CB<T, int>(pObj, pFunc)
    {
        ++g_nCallbacks;
    }
    ~CountedCB() override
    {
        --g_nCallbacks;
    }
};

/** Fails the test when it is called while nobody may call it. */
class Visitor
{
public:
    int onEvent(Event*)
    {
        m_bStrayCall = m_bStrayCall || !m_bWelcome;
        ++m_nCalls;
        return 0;
    }

    std::atomic<bool> m_bWelcome{false};
    std::atomic<bool> m_bStrayCall{false};
    std::atomic<int> m_nCalls{0};
};

void add(SubscriberList& list, Visitor& visitor)
{
    visitor.m_bWelcome = true;
    list.add(std::make_unique<CountedCB<Visitor>>(&visitor, &Visitor::onEvent));
}

void remove(SubscriberList& list, Visitor& visitor)
{
    list.remove(CB<Visitor, int>(&visitor, &Visitor::onEvent));
    visitor.m_bWelcome = false;
}

/** Publishes without a pause while it lives. */
class Publisher
{
public:
    explicit Publisher(SubscriberList& list)
        : m_thread([this, &list] {
              NumberEvent event;
              while (!m_bQuit) {
                  list.publish(event, PUBLISH_NESTED);
                  ++m_nRounds;
              }
          })
    {
    }
    Publisher(const Publisher&) = delete;
    Publisher& operator=(const Publisher&) = delete;
    ~Publisher()
    {
        m_bQuit = true;
        m_thread.join();
    }

    std::atomic<unsigned> m_nRounds{0};

private:
    std::atomic<bool> m_bQuit{false};
    std::thread m_thread;
};

} // namespace

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
    std::thread remover([&] {
        list.remove(CB<Sleeper, int>(&sleeper, &Sleeper::onEvent));
        EXPECT_TRUE(sleeper.m_bLeft);
        bRemoved = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // it would be through by now
    EXPECT_FALSE(bRemoved);
    sleeper.m_bMayLeave = true;
    publisher.join();
    remover.join();

    EXPECT_TRUE(bRemoved);
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

namespace {

const int DEEP = 12; // more visits at once than a list has places for

/** Publishes again, DEEP times inside each other, and leaves at the innermost one when asked. */
class Nest
{
public:
    explicit Nest(SubscriberList& list) : m_list(list) {}

    int onEvent(Event* pEvent)
    {
        thread_local int t_nDepth = 0;
        m_bStrayCall = m_bStrayCall || m_bGone;
        ++m_nCalls;
        ++t_nDepth;
        if (t_nDepth < DEEP) {
            m_list.publish(*pEvent, PUBLISH_NESTED);
        } else if (m_bLeave) {
            m_list.remove(CB<Nest, int>(this, &Nest::onEvent));
            m_bGone = true;
        }
        --t_nDepth;
        return 0;
    }

    SubscriberList& m_list;
    std::atomic<int> m_nCalls{0};
    std::atomic<bool> m_bLeave{false};
    std::atomic<bool> m_bGone{false};
    std::atomic<bool> m_bStrayCall{false};
};

} // namespace

TEST(SubscriberList, DeepNestingReachesEveryLevel)
{
    SubscriberList list;
    Nest nest(list);
    Visitor visitor;
    list.add(std::make_unique<CB<Nest, int>>(&nest, &Nest::onEvent));
    add(list, visitor);
    NumberEvent event;

    list.publish(event, PUBLISH_NESTED);

    EXPECT_EQ(DEEP, nest.m_nCalls);
    EXPECT_EQ(DEEP, visitor.m_nCalls);
}

TEST(SubscriberList, HandlerLeavesFromDeepInsideAndIsFreedBehindTheLastDelivery)
{
    const int nBefore = g_nCallbacks;
    SubscriberList list;
    Nest nest(list);
    nest.m_bLeave = true;
    Visitor visitor;
    list.add(std::make_unique<CountedCB<Nest>>(&nest, &Nest::onEvent));
    NumberEvent event;

    list.publish(event, PUBLISH_NESTED);
    list.publish(event, PUBLISH_NESTED);

    EXPECT_EQ(DEEP, nest.m_nCalls);
    EXPECT_FALSE(nest.m_bStrayCall);
    add(list, visitor); // frees what has been left over
    EXPECT_EQ(nBefore + 1, g_nCallbacks);
}

TEST(SubscriberList, SubscribersComeAndGoWhileMorePublishersThanPlacesAreOnTheList)
{
    SubscriberList list;
    Nest nest(list);
    list.add(std::make_unique<CB<Nest, int>>(&nest, &Nest::onEvent));
    {
        Publisher first(list);
        Publisher second(list);
        for (int i = 0; i < 200; ++i) {
            Visitor visitor; // its memory goes at once: a late call would hit it
            add(list, visitor);
            if (0 == i % 3) {
                EXPECT_TRUE(eventually([&] { return visitor.m_nCalls > DEEP; }));
            }
            remove(list, visitor);
            EXPECT_FALSE(visitor.m_bStrayCall);
        }
    }
    const int nBefore = g_nCallbacks;
    Visitor last;
    add(list, last);
    remove(list, last);

    EXPECT_GE(nBefore, g_nCallbacks);
}

TEST(SubscriberList, RemoveWaitsForACallDeepInside)
{
    class Sleeper
    {
    public:
        explicit Sleeper(const Nest& nest) : m_nest(nest) {}
        int onEvent(Event*)
        {
            if (DEEP == m_nest.m_nCalls && !m_bInside.exchange(true)) {
                EXPECT_TRUE(eventually([this] { return m_bMayLeave.load(); }));
                m_bLeft = true;
            }
            return 0;
        }
        const Nest& m_nest;
        std::atomic<bool> m_bInside{false};
        std::atomic<bool> m_bMayLeave{false};
        std::atomic<bool> m_bLeft{false};
    };
    SubscriberList list;
    Nest nest(list);
    Sleeper sleeper(nest);
    list.add(std::make_unique<CB<Nest, int>>(&nest, &Nest::onEvent));
    list.add(std::make_unique<CB<Sleeper, int>>(&sleeper, &Sleeper::onEvent));
    std::thread publisher([&list] {
        NumberEvent event;
        list.publish(event, PUBLISH_NESTED);
    });
    ASSERT_TRUE(eventually([&] { return sleeper.m_bInside.load(); }));

    std::atomic<bool> bRemoved{false};
    std::thread remover([&] {
        list.remove(CB<Sleeper, int>(&sleeper, &Sleeper::onEvent));
        EXPECT_TRUE(sleeper.m_bLeft);
        bRemoved = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // it would be through by now
    EXPECT_FALSE(bRemoved);
    sleeper.m_bMayLeave = true;
    publisher.join();
    remover.join();

    EXPECT_TRUE(bRemoved);
}

namespace {

thread_local bool t_bLeaver = false; // of the two roles below, this thread's

/** Holds every thread but the leaver's. */
class Gate
{
public:
    int onEvent(Event*)
    {
        if (!t_bLeaver) {
            ++m_nInside;
            EXPECT_TRUE(eventually([this] { return m_bOpen.load(); }));
        }
        return 0;
    }
    std::atomic<int> m_nInside{0};
    std::atomic<bool> m_bOpen{false};
};

/** On the leaver's thread removes itself and stays in its call. */
class StayingLeaver
{
public:
    explicit StayingLeaver(SubscriberList& list) : m_list(list) {}
    int onEvent(Event*)
    {
        if (t_bLeaver) {
            m_list.remove(CB<StayingLeaver, int>(this, &StayingLeaver::onEvent));
            m_bGone = true;
            EXPECT_TRUE(eventually([this] { return m_bMayReturn.load(); }));
        }
        return 0;
    }
    SubscriberList& m_list;
    std::atomic<bool> m_bGone{false};
    std::atomic<bool> m_bMayReturn{false};
};

/** A delivery stands at an entry that is unlinked; what this leads to is unlinked as well. */
void leaveAndRemoveTheNextOne(int nOtherPublishers)
{
    const int nBefore = g_nCallbacks;
    SubscriberList list;
    Gate gate;
    StayingLeaver leaver(list);
    Visitor next;
    list.add(std::make_unique<CB<Gate, int>>(&gate, &Gate::onEvent));
    list.add(std::make_unique<CB<StayingLeaver, int>>(&leaver, &StayingLeaver::onEvent));
    add(list, next);
    std::vector<std::thread> vecOther;
    for (int i = 0; i < nOtherPublishers; ++i) {
        vecOther.emplace_back([&list] {
            NumberEvent event;
            list.publish(event, PUBLISH_NESTED);
        });
    }
    EXPECT_TRUE(eventually([&] { return nOtherPublishers == gate.m_nInside; }));
    std::thread publisher([&list] {
        t_bLeaver = true;
        NumberEvent event;
        list.publish(event, PUBLISH_NESTED);
    });
    EXPECT_TRUE(eventually([&] { return leaver.m_bGone.load(); }));
    gate.m_bOpen = true;
    for (std::thread& thread : vecOther) {
        thread.join();
    }
    const int nCalls = next.m_nCalls;

    remove(list, next);
    EXPECT_EQ(nBefore + 1, g_nCallbacks); // the delivery is about to come to it
    leaver.m_bMayReturn = true;
    publisher.join();

    EXPECT_EQ(nCalls, next.m_nCalls);
    EXPECT_FALSE(next.m_bStrayCall);
    add(list, next);
    remove(list, next);
    EXPECT_EQ(nBefore, g_nCallbacks);
}

} // namespace

TEST(SubscriberList, EntryBehindOneThatIsGoneStaysForTheDeliveryThatStandsThere)
{
    leaveAndRemoveTheNextOne(0);
}

TEST(SubscriberList, SoItDoesForADeliveryThatHasFoundNoPlace)
{
    leaveAndRemoveTheNextOne(DEEP);
}
