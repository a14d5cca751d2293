// The subscribers of one event bus: lock-free delivery beside coming and going subscribers.
#pragma once

#include <atomic>
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
 * Readers announce themselves in one of two counters, chosen by the current epoch; an unlinked
 * entry is freed once no publisher is left that entered before it was unlinked. Without publishers
 * that is at once, else with a later add or remove, at the latest with the list.
 */
class SubscriberList
{
public:
    SubscriberList() = default;
    SubscriberList(const SubscriberList&) = delete;
    SubscriberList& operator=(const SubscriberList&) = delete;
    /** Frees what is still subscribed; nobody may publish any more. */
    ~SubscriberList();

    /** Subscribe; deliveries that are already under way may or may not reach the new entry. */
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
    class ReaderGuard;
    class CallGuard;

    Subscriber* unlink(const ICB<int>& cb) REQUIRES(m_mtx);
    void retire(Subscriber* pSubscriber) REQUIRES(m_mtx);
    void reclaim() REQUIRES(m_mtx);

    Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards linking and the retired lists; innermost
    std::atomic<Subscriber*> m_pOldest{nullptr};
    std::atomic<int> m_nEpoch{0}; // 0 or 1: the counter that new publishers use
    std::atomic<int> m_anReaders[2] = {{0}, {0}};
    Subscriber* m_apRetired[2] GUARDED_BY(m_mtx) = {nullptr, nullptr}; // by epoch of unlinking
};
