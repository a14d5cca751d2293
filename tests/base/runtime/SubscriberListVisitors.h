// Subscribers that count, and publishers that never rest.
#pragma once

#include <atomic>
#include <thread>

#include "SubscriberList.h"

class NumberEvent : public Event
{
};

inline std::atomic<int> g_nCallbacks{0}; // alive

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

inline void add(SubscriberList& list, Visitor& visitor)
{
    visitor.m_bWelcome = true;
    list.add(std::make_unique<CountedCB<Visitor>>(&visitor, &Visitor::onEvent));
}

inline void remove(SubscriberList& list, Visitor& visitor)
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
