// The subscribers of one event bus: lock-free delivery beside coming and going subscribers.
#include "SubscriberList.h"

#include "Time.h"

namespace {

// One frame per call of a handler that is running on this thread, innermost first.
struct CallFrame
{
    const Subscriber* pSubscriber;
    const CallFrame* pOuter;
};

thread_local const CallFrame* t_pCalls = nullptr;

int callsOnThisThread(const Subscriber* pSubscriber)
{
    int nCalls = 0;
    for (const CallFrame* pFrame = t_pCalls; nullptr != pFrame; pFrame = pFrame->pOuter) {
        nCalls += (pFrame->pSubscriber == pSubscriber) ? 1 : 0;
    }
    return nCalls;
}

void freeRetired(Subscriber* pSubscriber, Subscriber* Subscriber::*pNext)
{
    while (nullptr != pSubscriber) {
        Subscriber* pFollowing = pSubscriber->*pNext;
        delete pSubscriber;
        pSubscriber = pFollowing;
    }
}

} // namespace

/** A publisher on the list: entries that it may still reach are not freed. */
class SubscriberList::ReaderGuard
{
public:
    explicit ReaderGuard(SubscriberList& list) : m_list(list)
    {
        for (;;) {
            m_nEpoch = m_list.m_nEpoch.load();
            m_list.m_anReaders[m_nEpoch].fetch_add(1);
            if (m_list.m_nEpoch.load() == m_nEpoch) {
                return;
            }
            // The epoch changed in between: the count may have come too late to be seen.
            m_list.m_anReaders[m_nEpoch].fetch_sub(1);
        }
    }
    ReaderGuard(const ReaderGuard&) = delete;
    ReaderGuard& operator=(const ReaderGuard&) = delete;
    ~ReaderGuard()
    {
        m_list.m_anReaders[m_nEpoch].fetch_sub(1);
    }

private:
    SubscriberList& m_list;
    int m_nEpoch = 0;
};

/** One call of one handler; remove() waits for its end. */
class SubscriberList::CallGuard
{
public:
    explicit CallGuard(Subscriber& subscriber)
        : m_subscriber(subscriber), m_frame{&subscriber, t_pCalls}
    {
        m_subscriber.m_nCalls.fetch_add(1);
        t_pCalls = &m_frame;
    }
    CallGuard(const CallGuard&) = delete;
    CallGuard& operator=(const CallGuard&) = delete;
    ~CallGuard()
    {
        t_pCalls = m_frame.pOuter;
        m_subscriber.m_nCalls.fetch_sub(1);
    }

private:
    Subscriber& m_subscriber;
    CallFrame m_frame;
};

SubscriberList::~SubscriberList()
{
    Subscriber* pSubscriber = m_pOldest.load();
    while (nullptr != pSubscriber) {
        Subscriber* pNewer = pSubscriber->m_pNewer.load();
        delete pSubscriber;
        pSubscriber = pNewer;
    }
    freeRetired(m_apRetired[0], &Subscriber::m_pNextRetired);
    freeRetired(m_apRetired[1], &Subscriber::m_pNextRetired);
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
    const int nOwnCalls = callsOnThisThread(pSubscriber);
    while (pSubscriber->m_nCalls.load() > nOwnCalls) {
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
    Subscriber*& pHead = m_apRetired[m_nEpoch.load()];
    pSubscriber->m_pNextRetired = pHead;
    pHead = pSubscriber;
}

void SubscriberList::reclaim()
{
    // Two rounds free an entry of the current epoch when nobody is publishing.
    for (int nRound = 0; nRound < 2; ++nRound) {
        const int nEpoch = m_nEpoch.load();
        const int nPrevious = 1 - nEpoch;
        if (0 != m_anReaders[nPrevious].load()) {
            return;
        }
        freeRetired(m_apRetired[nPrevious], &Subscriber::m_pNextRetired);
        m_apRetired[nPrevious] = nullptr;
        m_nEpoch.store(nPrevious);
    }
}

void SubscriberList::publish(Event& event, PUBLISH_MODE_E eMode)
{
    ReaderGuard reader(*this);
    for (Subscriber* p = m_pOldest.load(); nullptr != p; p = p->m_pNewer.load()) {
        if (PUBLISH_SKIP_RUNNING == eMode && 0 != callsOnThisThread(p)) {
            continue;
        }
        CallGuard call(*p);
        if (!p->m_bRemoved.load()) {
            (void)p->m_pCB->call(&event); // handlers' results are not looked at
        }
    }
}
