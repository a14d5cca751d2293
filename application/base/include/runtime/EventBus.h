// One event bus per event type: how the parts of the system talk to each other.
#pragma once

#include <memory>

#include "SubscriberList.h"

/**
 * The bus of event type E; made on first use, lives until the process exits.
 *
 * Delivery is synchronous on the publisher's thread, oldest subscriber first, without a queue.
 * Who subscribes in a constructor calls getInstance() (or subscribe) there, so that the bus
 * outlives it. SubscriberList.h has the rules for coming and going during a publish.
 */
template <class E> class EventBus
{
public:
    static EventBus& getInstance()
    {
        static EventBus s_instance;
        return s_instance;
    }
    EventBus(const EventBus&) = delete;
    EventBus& operator=(const EventBus&) = delete;
    virtual ~EventBus() = default;

    /** Call pObj->*pFunc for every event from now on; subscribed twice, it is called twice. */
    template <class T> static void subscribe(T* pObj, int (T::*pFunc)(Event*))
    {
        getInstance().m_list.add(std::make_unique<CB<T, int>>(pObj, pFunc));
    }

    /** Take back the oldest such subscription; nothing happens when there is none. */
    template <class T> static void unsubscribe(T* pObj, int (T::*pFunc)(Event*))
    {
        getInstance().m_list.remove(CB<T, int>(pObj, pFunc));
    }

    /** Deliver the event, which stays the caller's, before returning. */
    static void publish(E& event, PUBLISH_MODE_E eMode = PUBLISH_NESTED)
    {
        getInstance().m_list.publish(event, eMode);
    }

private:
    EventBus() = default;

    SubscriberList m_list;
};
