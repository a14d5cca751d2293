// Delivery on one thread: order, double subscriptions, handlers that leave or publish themselves.
#include "EventBus.h"

#include <string>

#include <gtest/gtest.h>

#include "Fault.h"

namespace {

class LetterEvent : public Event
{
};

class EmptyEvent : public Event
{
};

std::string g_strCalls; // one letter per call

class Listener
{
public:
    explicit Listener(char cName) : m_cName(cName)
    {
        EventBus<LetterEvent>::subscribe(this, &Listener::onLetter);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener()
    {
        EventBus<LetterEvent>::unsubscribe(this, &Listener::onLetter);
    }

    int onLetter(Event*)
    {
        g_strCalls += m_cName;
        if (m_bLeave) {
            EventBus<LetterEvent>::unsubscribe(this, &Listener::onLetter);
        }
        if (m_bPublishOnce) {
            m_bPublishOnce = false;
            LetterEvent event;
            EventBus<LetterEvent>::publish(event, m_eMode);
        }
        return 5; // looked at by nobody
    }

    int onSame(Event*)
    {
        g_strCalls += '+';
        return 0;
    }

    bool m_bLeave = false;
    bool m_bPublishOnce = false;
    PUBLISH_MODE_E m_eMode = PUBLISH_NESTED;

private:
    const char m_cName;
};

std::string publishOnce()
{
    g_strCalls.clear();
    LetterEvent event;
    EventBus<LetterEvent>::publish(event);
    return g_strCalls;
}

} // namespace

TEST(EventBus, OldestSubscriberIsCalledFirst)
{
    Listener a('A');
    Listener b('B');

    EXPECT_EQ("AB", publishOnce());
}

TEST(EventBus, WithoutSubscribersNothingHappens)
{
    EmptyEvent event;

    EventBus<EmptyEvent>::publish(event);
}

TEST(EventBus, SubscribedTwiceIsCalledTwiceAndLeavesOlderEntryFirst)
{
    Listener a('A');
    Listener b('B');
    EventBus<LetterEvent>::subscribe(&a, &Listener::onLetter);
    EXPECT_EQ("ABA", publishOnce());

    EventBus<LetterEvent>::unsubscribe(&a, &Listener::onLetter);
    EXPECT_EQ("BA", publishOnce());
}

TEST(EventBus, UnsubscribeOfAStrangerChangesNothing)
{
    Listener a('A');
    Listener b('B');

    EventBus<LetterEvent>::unsubscribe(&a, &Listener::onSame);

    EXPECT_EQ("AB", publishOnce());
}

TEST(EventBus, UnsubscribeTakesTheGivenFunctionOnly)
{
    Listener a('A');
    EventBus<LetterEvent>::subscribe(&a, &Listener::onSame);
    EXPECT_EQ("A+", publishOnce());

    EventBus<LetterEvent>::unsubscribe(&a, &Listener::onSame);
    EXPECT_EQ("A", publishOnce());
}

TEST(EventBus, HandlerThatLeavesDoesNotBreakTheDelivery)
{
    Listener a('A');
    Listener b('B');
    Listener c('C');
    b.m_bLeave = true;

    EXPECT_EQ("ABC", publishOnce());
    EXPECT_EQ("AC", publishOnce());
}

TEST(EventBus, FirstAndLastMayLeaveToo)
{
    Listener a('A');
    Listener b('B');
    a.m_bLeave = true;
    b.m_bLeave = true;

    EXPECT_EQ("AB", publishOnce());
    EXPECT_EQ("", publishOnce());
}

TEST(EventBus, HandlerMayPublishAgain)
{
    Listener a('A');
    Listener b('B');
    a.m_bPublishOnce = true;

    EXPECT_EQ("AABB", publishOnce());
}

TEST(EventBus, HandlerMayPublishAndThenLeave)
{
    Listener a('A');
    Listener b('B');
    b.m_bPublishOnce = true;
    b.m_bLeave = true; // before it publishes: the nested event does not come back to it

    EXPECT_EQ("ABA", publishOnce());
    EXPECT_EQ("A", publishOnce());
}

TEST(EventBus, RunningHandlerIsLeftOutOfItsOwnEventsWhenAsked)
{
    Listener a('A');
    Listener b('B');
    a.m_bPublishOnce = true;
    a.m_eMode = PUBLISH_SKIP_RUNNING;

    EXPECT_EQ("ABB", publishOnce());
}

TEST(EventBus, PublishAllocatesNothing)
{
    class Counter
    {
    public:
        int onLetter(Event*)
        {
            ++m_nCalls;
            return 0;
        }
        int m_nCalls = 0;
    };
    Counter counter;
    EventBus<LetterEvent>::subscribe(&counter, &Counter::onLetter);
    EventBus<LetterEvent>::subscribe(&counter, &Counter::onLetter);
    LetterEvent event;
    EventBus<LetterEvent>::publish(event);

    const unsigned long ulBefore = faultThreadAllocations();
    for (int i = 0; i < 100; ++i) {
        EventBus<LetterEvent>::publish(event);
        EventBus<LetterEvent>::publish(event, PUBLISH_SKIP_RUNNING);
    }
    const unsigned long ulAfter = faultThreadAllocations();

    EXPECT_EQ(402, counter.m_nCalls);
    EXPECT_EQ(0u, ulAfter - ulBefore);
    EventBus<LetterEvent>::unsubscribe(&counter, &Counter::onLetter);
    EventBus<LetterEvent>::unsubscribe(&counter, &Counter::onLetter);
}
