// The subscribers of one event bus: lock-free delivery while subscribers come and go.
#include "SubscriberList.h"

#include "Time.h"

/** A handler that is running on this thread; those that it was called from lie outside of it. */
class SubscriberList::CallFrame
{
public:
    explicit CallFrame(const Subscriber* pSubscriber)
        : m_pSubscriber(pSubscriber), m_pOuter(t_pInnermost)
    {
        t_pInnermost = this;
    }
    CallFrame(const CallFrame&) = delete;
    CallFrame& operator=(const CallFrame&) = delete;
    ~CallFrame()
    {
        t_pInnermost = m_pOuter;
    }

    /** How often this thread is inside the handler. */
    static int count(const Subscriber* pSubscriber)
    {
        int nCalls = 0;
        for (const CallFrame* p = t_pInnermost; nullptr != p; p = p->m_pOuter) {
            nCalls += (p->m_pSubscriber == pSubscriber) ? 1 : 0;
        }
        return nCalls;
    }

private:
    static thread_local const CallFrame* t_pInnermost;

    const Subscriber* const m_pSubscriber;
    const CallFrame* const m_pOuter;
};

thread_local const SubscriberList::CallFrame* SubscriberList::CallFrame::t_pInnermost = nullptr;

/**
 * One publisher's walk over the list.
 *
 * Announcing and then looking, here, and unlinking and then looking for announcements, in remove,
 * are sequentially consistent: one of the two sees the other. One exchange serves both to take the
 * slot and to announce the first entry. Only leaving is weaker: a release.
 */
class SubscriberList::Visit
{
public:
    /** @param pFirst  what m_pOldest held; only its address is used */
    Visit(SubscriberList& list, Subscriber* pFirst) : m_list(list)
    {
        for (Slot& slot : list.m_aSlot) {
            Subscriber* pFree = nullptr;
            if (nullptr == slot.m_pAt.load(std::memory_order_relaxed) &&
                slot.m_pAt.compare_exchange_strong(pFree, pFirst)) {
                m_pSlot = &slot;
                m_pAt = pFirst;
                return;
            }
        }
        list.m_nGuests.fetch_add(1);
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    ~Visit()
    {
        if (nullptr != m_pSlot) {
            const uint32_t u32Visits = m_pSlot->m_u32Visits.load(std::memory_order_relaxed);
            m_pSlot->m_u32Visits.store(u32Visits + 1, std::memory_order_release);
            m_pSlot->m_pAt.store(nullptr, std::memory_order_release); // from here on another's
            return;
        }
        leaveAsGuest();
        m_list.m_nGuests.fetch_sub(1);
    }

    /** Announce the entry. @return it, null at the end */
    Subscriber* moveTo(Subscriber* pEntry)
    {
        if (nullptr == pEntry || m_pAt == pEntry) {
            return pEntry;
        }
        if (nullptr != m_pSlot) {
            m_pSlot->m_pAt.store(pEntry);
        } else {
            leaveAsGuest();
            pEntry->m_nGuestCalls.fetch_add(1);
        }
        m_pAt = pEntry;
        return pEntry;
    }

private:
    void leaveAsGuest()
    {
        if (nullptr != m_pAt) {
            m_pAt->m_nGuestCalls.fetch_sub(1);
        }
    }

    SubscriberList& m_list;
    Slot* m_pSlot = nullptr;     // null: a guest
    Subscriber* m_pAt = nullptr; // announced
};

SubscriberList::~SubscriberList()
{
    Subscriber* pSubscriber = m_pOldest.load();
    while (nullptr != pSubscriber) {
        Subscriber* pNewer = pSubscriber->m_pNewer.load();
        delete pSubscriber;
        pSubscriber = pNewer;
    }
    while (nullptr != m_pRetired) {
        Subscriber* pNext = m_pRetired->m_pNextRetired;
        delete m_pRetired;
        m_pRetired = pNext;
    }
}

void SubscriberList::add(std::unique_ptr<ICB<int>> pCB)
{
    auto* pSubscriber = new Subscriber(std::move(pCB));
    MutexGuard guard(m_mtx);
    std::atomic<Subscriber*>* pLink = &m_pOldest;
    while (nullptr != pLink->load()) {
        pLink = &pLink->load()->m_pNewer;
    }
    pLink->store(pSubscriber);
    reclaim();
}

void SubscriberList::remove(const ICB<int>& cb)
{
    Subscriber* pSubscriber = nullptr;
    {
        MutexGuard guard(m_mtx);
        pSubscriber = unlink(cb);
    }
    if (nullptr == pSubscriber) {
        return;
    }
    const int nOwnCalls = CallFrame::count(pSubscriber);
    while (countCalls(pSubscriber) > nOwnCalls) {
        sleepFor(Time(0, 1000));
    }
    // Only now: until here this thread itself still looked at the entry.
    MutexGuard guard(m_mtx);
    retire(pSubscriber);
    reclaim();
}

Subscriber* SubscriberList::unlink(const ICB<int>& cb)
{
    std::atomic<Subscriber*>* pLink = &m_pOldest;
    for (Subscriber* p = pLink->load(); nullptr != p; p = pLink->load()) {
        if (p->m_pCB->equals(cb)) {
            pLink->store(p->m_pNewer.load());
            p->m_bRemoved.store(true);
            return p;
        }
        pLink = &p->m_pNewer;
    }
    return nullptr;
}

void SubscriberList::retire(Subscriber* pSubscriber)
{
    pSubscriber->m_bGuests = true;
    for (int i = 0; i < SUBSCRIBER_SLOTS; ++i) {
        pSubscriber->m_abVisited[i] = nullptr != m_aSlot[i].m_pAt.load();
        pSubscriber->m_au32Visits[i] = m_aSlot[i].m_u32Visits.load();
    }
    pSubscriber->m_pNextRetired = m_pRetired;
    m_pRetired = pSubscriber;
}

void SubscriberList::reclaim()
{
    Subscriber** ppLink = &m_pRetired;
    while (nullptr != *ppLink) {
        Subscriber* pSubscriber = *ppLink;
        if (isReachable(*pSubscriber)) {
            ppLink = &pSubscriber->m_pNextRetired;
        } else {
            *ppLink = pSubscriber->m_pNextRetired;
            delete pSubscriber;
        }
    }
}

bool SubscriberList::isReachable(Subscriber& subscriber)
{
    // Who comes after the unlinking does not come to the entry: once gone is gone for good.
    subscriber.m_bGuests = subscriber.m_bGuests && 0 != m_nGuests.load();
    bool bReachable = subscriber.m_bGuests;
    for (int i = 0; i < SUBSCRIBER_SLOTS; ++i) {
        bool& bVisited = subscriber.m_abVisited[i];
        bVisited = bVisited && nullptr != m_aSlot[i].m_pAt.load() &&
                   subscriber.m_au32Visits[i] == m_aSlot[i].m_u32Visits.load();
        bReachable = bReachable || bVisited;
    }
    return bReachable;
}

int SubscriberList::countCalls(const Subscriber* pSubscriber) const
{
    int nCalls = pSubscriber->m_nGuestCalls.load();
    for (const Slot& slot : m_aSlot) {
        nCalls += (slot.m_pAt.load() == pSubscriber) ? 1 : 0;
    }
    return nCalls;
}

void SubscriberList::publish(Event& event, PUBLISH_MODE_E eMode)
{
    Subscriber* const pFirst = m_pOldest.load();
    if (nullptr == pFirst) {
        return;
    }
    Visit visit(*this, pFirst);
    // The oldest may be another one by now: the list is looked at again from the slot.
    Subscriber* pNewer = nullptr;
    for (Subscriber* p = visit.moveTo(m_pOldest.load()); nullptr != p; p = visit.moveTo(pNewer)) {
        // Before the call: whom the newest entry's handler subscribes gets the next event.
        pNewer = p->m_pNewer.load();
        if (PUBLISH_SKIP_RUNNING == eMode && 0 != CallFrame::count(p)) {
            continue;
        }
        const CallFrame frame(p);
        if (!p->m_bRemoved.load()) {
            (void)p->m_pCB->call(&event); // handlers' results are not looked at
        }
    }
}
