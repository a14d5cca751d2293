// One entry of an event bus.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Callback.h"

enum : int
{
    // Of a list. Six threads may publish at once, and a log line that a log sink writes is nested.
    SUBSCRIBER_SLOTS = 8
};

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
    std::atomic<bool> m_bRemoved{false};        // no call may begin any more
    std::atomic<int> m_nGuestCalls{0};          // publishers without a slot that are at this entry

    // Of an unlinked entry; guarded by the list's mutex.
    Subscriber* m_pNextRetired = nullptr;
    bool m_bGuests = false;                       // some may still come to it
    bool m_abVisited[SUBSCRIBER_SLOTS] = {};      // so may the visitor in this slot,
    uint32_t m_au32Visits[SUBSCRIBER_SLOTS] = {}; // as long as this visit lasts
};
