// One entry of an event bus.
#pragma once

#include <atomic>
#include <memory>

#include "Callback.h"

/** A callback in a SubscriberList, which creates, links and frees it. */
class Subscriber
{
public:
    explicit Subscriber(std::unique_ptr<ICB<int>> pCB) : m_pCB(std::move(pCB)) {}
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    virtual ~Subscriber() = default;

private:
    friend class SubscriberList;

    std::unique_ptr<ICB<int>> m_pCB;
    std::atomic<Subscriber*> m_pNewer{nullptr}; // next in delivery order; stays set after unlinking
    std::atomic<int> m_nCalls{0};               // publishers that are at this entry, on all threads
    std::atomic<bool> m_bRemoved{false};        // no call may begin any more
    Subscriber* m_pNextRetired = nullptr;       // guarded by the list's mutex
};
