// The subscribers of one event bus: lock-free delivery while subscribers come and go.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Mutex.h"
#include "Subscriber.h"

/** What publish does with a handler that is already running on the publishing thread. */
enum PUBLISH_MODE_E
{
    PUBLISH_NESTED,       // call it again
    PUBLISH_SKIP_RUNNING, // leave it out: a log sink must not be re-entered by its own log lines
};

/**
 * Delivers events to callbacks, oldest subscriber first, on the publisher's thread.
 *
 * Any thread may add, remove and publish at any time; publish takes no lock and allocates nothing.
 * A publisher announces in a slot of the list at which entry it is; what it stands on, or may still
 * come to, is not freed. An unlinked entry is freed once every publisher that was on the list when
 * remove() ended has left it: without publishers at once, else with a later add or remove, at the
 * latest with the list. Publishers beyond the number of slots, nested ones included, are guests:
 * they share one count, which costs them more, and an entry waits for a moment without any of them.
 */
class SubscriberList
{
public:
    SubscriberList() = default;
    SubscriberList(const SubscriberList&) = delete;
    SubscriberList& operator=(const SubscriberList&) = delete;
    /** Frees what is still subscribed; nothing may publish any more. */
    ~SubscriberList();

    /**
     * Subscribe. Deliveries that are under way may or may not reach the new entry; one that is
     * calling the newest entry does not.
     */
    void add(std::unique_ptr<ICB<int>> pCB);

    /**
     * Unsubscribe the oldest entry that equals cb; nothing happens when there is none.
     *
     * After the return the handler is not running on any other thread and is never called again.
     * Waits (polling, since publishers take no lock that could be waited on) for calls of this one
     * handler on other threads, so the caller must hold no lock that the handler takes. A handler
     * may remove itself, and only itself, while it is being called.
     */
    void remove(const ICB<int>& cb);

    /** Call every subscriber with the event, which stays the caller's; results are ignored. */
    void publish(Event& event, PUBLISH_MODE_E eMode);

private:
    class Visit;
    class CallFrame;

    /** One publisher's place; its owner alone writes to it, from taking it to giving it back. */
    struct Slot
    {
        std::atomic<Subscriber*> m_pAt{nullptr}; // the entry being visited; null: free
        std::atomic<uint32_t> m_u32Visits{0};    // that have ended here
    };

    Subscriber* unlink(const ICB<int>& cb) REQUIRES(m_mtx);
    void retire(Subscriber* pSubscriber) REQUIRES(m_mtx);
    void reclaim() REQUIRES(m_mtx);
    bool isReachable(Subscriber& subscriber) REQUIRES(m_mtx);
    int countCalls(const Subscriber* pSubscriber) const;

    Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards linking and the retired entries; innermost
    std::atomic<Subscriber*> m_pOldest{nullptr};
    Slot m_aSlot[SUBSCRIBER_SLOTS];
    std::atomic<int> m_nGuests{0}; // publishers without a slot
    Subscriber* m_pRetired GUARDED_BY(m_mtx) = nullptr;
};
