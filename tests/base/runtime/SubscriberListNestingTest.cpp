// The subscriber list under deliveries within deliveries.
#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "Eventually.h"
#include "SubscriberList.h"
#include "SubscriberListVisitors.h"

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

TEST(SubscriberListNesting, DeepNestingReachesEveryLevel)
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

TEST(SubscriberListNesting, HandlerLeavesFromDeepInsideAndIsFreedBehindTheLastDelivery)
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

TEST(SubscriberListNesting, SubscribersComeAndGoWhileMorePublishersThanPlacesAreOnTheList)
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

TEST(SubscriberListNesting, RemoveWaitsForACallDeepInside)
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
}

TEST(SubscriberListNesting, RemoveWaitsForACallAlthoughDeepOnesHaveComeAndGone)
{
    SubscriberList list;
    Nest nest(list);
    Gate gate;
    list.add(std::make_unique<CB<Nest, int>>(&nest, &Nest::onEvent));
    list.add(std::make_unique<CB<Gate, int>>(&gate, &Gate::onEvent));
    std::thread([&list] {
        t_bLeaver = true; // not held
        NumberEvent event;
        list.publish(event, PUBLISH_NESTED);
    }).join();
    list.remove(CB<Nest, int>(&nest, &Nest::onEvent));
    std::thread publisher([&list] {
        NumberEvent event;
        list.publish(event, PUBLISH_NESTED);
    });
    ASSERT_TRUE(eventually([&] { return 1 == gate.m_nInside; }));
    const CallJournal journal("select");
    std::atomic<bool> bRemoved{false};

    std::thread remover([&] {
        list.remove(CB<Gate, int>(&gate, &Gate::onEvent));
        bRemoved = true;
    });

    EXPECT_TRUE(eventually([&] { return bRemoved || !CallJournal::lines().empty(); }));
    EXPECT_FALSE(bRemoved);
    gate.m_bOpen = true;
    publisher.join();
    remover.join();
}

TEST(SubscriberListNesting, HandlerThatLeavesWaitsForItsCallOnAnotherThread)
{
    class Leaver
    {
    public:
        explicit Leaver(SubscriberList& list) : m_list(list) {}
        int onEvent(Event*)
        {
            if (t_bLeaver) {
                m_list.remove(CB<Leaver, int>(this, &Leaver::onEvent));
                m_bGone = true;
            } else {
                m_bInside = true;
                EXPECT_TRUE(eventually([this] { return m_bMayReturn.load(); }));
            }
            return 0;
        }
        SubscriberList& m_list;
        std::atomic<bool> m_bInside{false};
        std::atomic<bool> m_bMayReturn{false};
        std::atomic<bool> m_bGone{false};
    };
    SubscriberList list;
    Leaver leaver(list);
    list.add(std::make_unique<CB<Leaver, int>>(&leaver, &Leaver::onEvent));
    std::thread other([&list] {
        NumberEvent event;
        list.publish(event, PUBLISH_NESTED);
    });
    ASSERT_TRUE(eventually([&] { return leaver.m_bInside.load(); }));
    const CallJournal journal("select");

    std::thread publisher([&list] {
        t_bLeaver = true;
        NumberEvent event;
        list.publish(event, PUBLISH_NESTED);
    });

    EXPECT_TRUE(eventually([&] { return leaver.m_bGone || !CallJournal::lines().empty(); }));
    EXPECT_FALSE(leaver.m_bGone);
    leaver.m_bMayReturn = true;
    other.join();
    publisher.join();
    EXPECT_TRUE(leaver.m_bGone);
}

TEST(SubscriberListNesting, EntryBehindOneThatIsGoneStaysForTheDeliveryThatStandsThere)
{
    leaveAndRemoveTheNextOne(0);
}

TEST(SubscriberListNesting, SoItDoesForADeliveryThatHasFoundNoPlace)
{
    leaveAndRemoveTheNextOne(DEEP);
}
