// The event loop under the TCP servers: one epoll instance, its thread and its handlers.
#include "EPoll.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>

#include <unistd.h>

#include "Log.h"
#include "Time.h"

static const char* const SOURCE_NAME = "EPoll";

static const int WAIT_MS = 1000; // so that the thread notices a stop request
static const char* const CONTROL_ERROR = "epoll_ctl err: %s\n";

/** One registered descriptor: the epoll registration's data.ptr. */
struct EPoll::Record
{
    int nFd;
    TcpClient* pClient; // events point at it
    Record* pNewer;
    Record* pOlder;
};

EPoll::EPoll(const int& nMaxEvents, const char* pName)
    : m_nEPollFd(epoll_create1(EPOLL_CLOEXEC)), // a failure shows in addFd
      m_nMaxEvents(nMaxEvents),
      m_thread(&EPoll::pollOnce, this, (nullptr == pName) ? "epoll" : pName, 0, 0, 0, true),
      m_pEvents(
          static_cast<epoll_event*>(malloc(static_cast<size_t>(nMaxEvents) * sizeof(epoll_event))))
{
}

EPoll::~EPoll()
{
    (void)stop();
    if (m_nEPollFd >= 0) {
        ::close(m_nEPollFd);
    }
    while (nullptr != m_pNewest) {
        Record* pRecord = m_pNewest;
        m_pNewest = pRecord->pOlder;
        delete pRecord;
    }
}

int EPoll::start()
{
    return m_thread.start();
}

int EPoll::stop()
{
    return m_thread.stop();
}

void EPoll::setAcceptFd(int nFd)
{
    m_nAcceptFd = nFd;
}

int EPoll::addFd(const int& nFd, const uint32_t& u32Mask, TcpClient* pClient)
{
    auto* pRecord = new (std::nothrow) Record{nFd, pClient, nullptr, m_pNewest};
    epoll_event event{};
    event.events = u32Mask;
    event.data.ptr = pRecord;
    int nErrno = ENOMEM;
    if (nullptr != pRecord) {
        if (nullptr != m_pNewest) {
            m_pNewest->pNewer = pRecord;
        }
        m_pNewest = pRecord;
        if (0 == epoll_ctl(m_nEPollFd, EPOLL_CTL_ADD, nFd, &event)) {
            return 0;
        }
        nErrno = errno;
    }
    switch (nErrno) {
    case EBADF:
    case EEXIST:
    case EINVAL:
    case ENOENT:
    case ENOMEM:
    case EPERM:
        if (nullptr != pRecord) {
            pRecord->pClient = nullptr; // still the caller's
        }
        LOG(7, CONTROL_ERROR, strerror(nErrno));
        return 1;
    default:
        return 0; // Deliberate: e.g. ENOSPC, too many watches, counts as success
    }
}

void EPoll::unlink(Record& record)
{
    if (nullptr != record.pNewer) {
        record.pNewer->pOlder = record.pOlder;
    } else {
        m_pNewest = record.pOlder;
    }
    if (nullptr != record.pOlder) {
        record.pOlder->pNewer = record.pNewer;
    }
}

EPoll::Record& EPoll::recordOf(TcpClient** ppClient)
{
    return *reinterpret_cast<Record*>(reinterpret_cast<char*>(ppClient) -
                                      offsetof(Record, pClient));
}

int EPoll::armAgain(const EPollEvent& event, uint32_t u32Mask)
{
    epoll_event again{};
    again.events = u32Mask;
    again.data.ptr = &recordOf(event.m_ppClient);
    if (0 != epoll_ctl(m_nEPollFd, EPOLL_CTL_MOD, *event.m_pFd, &again)) {
        LOG(7, CONTROL_ERROR, strerror(errno));
        return 1;
    }
    return 0;
}

int EPoll::deleteFd(const int& nFd, TcpClient** ppClient)
{
    const int nOwnFd = nFd; // the reference may reach into the registration
    if (nOwnFd <= 0) {
        LOG(5, "occur fd <=0 while epoll delete fd, this will lead to memory leak!\n");
        return 1;
    }
    if (nullptr != ppClient) {
        Record* pRecord = &recordOf(ppClient);
        for (int i = 0; i < m_nReady; ++i) {
            epoll_event& event = m_pEvents[i];
            event.data.ptr = (pRecord == event.data.ptr) ? nullptr : event.data.ptr;
        }
        unlink(*pRecord);
        delete pRecord;
    }
    epoll_event unused{}; // kernels before 2.6.9 want one (epoll_ctl(2))
    (void)epoll_ctl(m_nEPollFd, EPOLL_CTL_DEL, nOwnFd, &unused);
    return 0;
}

int EPoll::pollOnce()
{
    const int nWaitMs = getWaitMs();
    const bool bAccept = m_bAcceptNext;
    m_bAcceptNext = false;
    m_nReady = epoll_wait(m_nEPollFd, m_pEvents.get(), m_nMaxEvents, bAccept ? 0 : nWaitMs);
    if (m_nReady < 0 && EINTR != errno) {
        // Deliberate: a lasting failure must not use up the processor.
        sleepFor(Time(0, 10000));
    }
    for (int i = 0; i < m_nReady; ++i) {
        const epoll_event& event = m_pEvents[i];
        auto* pRecord = static_cast<Record*>(event.data.ptr);
        if (nullptr != pRecord) { // else deleted by an earlier entry's handler
            dispatch(event.events, *pRecord);
        }
    }
    if (bAccept || m_bAcceptAgain) {
        m_bAcceptAgain = false;
        callAccept();
    }
    return 0;
}

bool EPoll::callHandler(ICB<RET_E>* pHandler, uint32_t u32Mask, Record& record)
{
    if (nullptr == pHandler) {
        return false;
    }
    EPollEvent event(u32Mask, &record.nFd, &record.pClient);
    return RET_SUCCESS != pHandler->call(&event);
}

void EPoll::dispatch(uint32_t u32Events, Record& record)
{
    // Once a handler has finished the entry, its registration may be gone.
    if (0 != (u32Events & EPOLLIN)) {
        const bool bAccept = nullptr != m_pAccept && m_nAcceptFd == record.nFd;
        if (callHandler(bAccept ? m_pAccept.get() : m_pIn.get(), EPOLLIN, record)) {
            return;
        }
    }
    if (0 != (u32Events & EPOLLOUT) && callHandler(m_pOut.get(), EPOLLOUT, record)) {
        return;
    }
    if (0 != (u32Events & EPOLLERR) && callHandler(m_pErr.get(), EPOLLERR, record)) {
        return;
    }
    if (0 != (u32Events & EPOLLHUP) && callHandler(m_pHup.get(), EPOLLHUP, record)) {
        return;
    }
    if (0 != (u32Events & EPOLLPRI)) {
        (void)callHandler(m_pPri.get(), EPOLLPRI, record); // the last
    }
}

void EPoll::acceptAgain()
{
    m_bAcceptAgain = true;
}

void EPoll::acceptNext()
{
    m_bAcceptNext = true;
}

int EPoll::getWaitMs()
{
    return WAIT_MS;
}

void EPoll::callAccept()
{
    if (nullptr != m_pAccept) {
        Record listener{m_nAcceptFd, nullptr, nullptr, nullptr};
        (void)callHandler(m_pAccept.get(), EPOLLIN, listener);
    }
}

void EPoll::forEach(const std::function<void(EPollEvent&)>& call)
{
    Record* pRecord = m_pNewest;
    while (nullptr != pRecord) {
        Record* pOlder = pRecord->pOlder; // the call deletes no other
        if (nullptr != pRecord->pClient) {
            EPollEvent event(0, &pRecord->nFd, &pRecord->pClient);
            call(event);
        }
        pRecord = pOlder;
    }
}
