// The event loop under the TCP servers: one epoll instance, its thread and its handlers.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>

#include <sys/epoll.h>

#include "Callback.h"
#include "EPollEvent.h"
#include "RetE.h"
#include "Thread.h"

/**
 * Waits for readiness on its own thread and calls one handler for each kind.
 *
 * All handlers run on the reactor's thread, one at a time; no lock is held or taken. A handler
 * returns non-zero when it has finished the entry (the connection may be gone), zero when the
 * dispatch of the entry is to go on. Descriptors are added and deleted on the reactor's thread, or
 * on any other while it is stopped.
 *
 * Descriptors are borrowed. Their registrations belong to the EPoll, whose destructor frees those
 * that deleteFd has not, including those whose addition failed.
 */
class EPoll
{
public:
    /**
     * @param nMaxEvents  most events taken by one wait
     * @param pName       the thread's name; null gives "epoll"
     */
    explicit EPoll(const int& nMaxEvents, const char* pName = nullptr);
    EPoll(const EPoll&) = delete;
    EPoll& operator=(const EPoll&) = delete;
    /** Stops the thread, as a class with handlers must have done in its own destructor. */
    virtual ~EPoll();

    /** Start the thread. @return 0 */
    int start();

    /** Stop the thread and wait for the end of its pass, a second at most when it is idle. */
    int stop();

    /** The listening descriptor: its in events go to the accept handler. 0 at first. */
    void setAcceptFd(int nFd);

    template <class T> RET_E setAcceptHandler(T* pObj, RET_E (T::*pFunc)(Event*))
    {
        return setHandler(m_pAccept, pObj, pFunc);
    }
    template <class T> RET_E setInHandler(T* pObj, RET_E (T::*pFunc)(Event*))
    {
        return setHandler(m_pIn, pObj, pFunc);
    }
    template <class T> RET_E setOutHandler(T* pObj, RET_E (T::*pFunc)(Event*))
    {
        return setHandler(m_pOut, pObj, pFunc);
    }
    template <class T> RET_E setPriHandler(T* pObj, RET_E (T::*pFunc)(Event*))
    {
        return setHandler(m_pPri, pObj, pFunc);
    }
    template <class T> RET_E setErrHandler(T* pObj, RET_E (T::*pFunc)(Event*))
    {
        return setHandler(m_pErr, pObj, pFunc);
    }
    template <class T> RET_E setHupHandler(T* pObj, RET_E (T::*pFunc)(Event*))
    {
        return setHandler(m_pHup, pObj, pFunc);
    }

    /**
     * Register a descriptor.
     *
     * @param pClient  the connection that owns the descriptor, or null; borrowed
     * @return 0; 1, logged at level 7, when epoll_ctl fails with EBADF, EEXIST, EINVAL, ENOENT,
     * ENOMEM or EPERM. Deliberate: any other failure counts as success, unlogged.
     */
    int addFd(const int& nFd, const uint32_t& u32Mask, TcpClient* pClient);

    /**
     * Unregister a descriptor, which stays open, and free its registration.
     *
     * @param ppClient  an event's pointer into the registration; null frees nothing now
     * @return 1, logged at level 5, for a descriptor of 0 or below; else 0
     */
    int deleteFd(const int& nFd, TcpClient** ppClient);

    /** The thread's body, a pass: one wait of at most a second, and the dispatch. @return 0 */
    int pollOnce();

protected:
    /** Called at the start of each pass. @return milliseconds to wait at most, 1000 here */
    virtual int getWaitMs();

    /**
     * From the accept handler: connections may still be pending. The handler is called again at the
     * end of this pass or of the next one, since the listener, edge-triggered, reports them no
     * more.
     */
    void acceptAgain();

    /** As acceptAgain, but at the end of the next pass, which does not wait. */
    void acceptNext();

    /**
     * From a handler: report what the event's descriptor is still ready for in the next pass,
     * behind what is waiting there, although the registration is edge-triggered.
     * @return 0; 1, logged at level 7, when the kernel refused
     */
    int armAgain(const EPollEvent& event, uint32_t u32Mask);

    /**
     * Call for each registration that has an owner, with an event of mask 0; the call may delete
     * the registration. On the reactor's thread, also from a handler of a registration that stays,
     * or with the thread stopped.
     */
    void forEach(const std::function<void(EPollEvent&)>& call);

private:
    struct Record;
    struct Free
    {
        void operator()(void* pBlock) const
        {
            free(pBlock);
        }
    };

    template <class T>
    RET_E setHandler(std::unique_ptr<ICB<RET_E>>& pSlot, T* pObj, RET_E (T::*pFunc)(Event*))
    {
        pSlot.reset(new CB<T, RET_E>(pObj, pFunc));
        return RET_SUCCESS;
    }

    static Record& recordOf(TcpClient** ppClient);
    static bool callHandler(ICB<RET_E>* pHandler, uint32_t u32Mask, Record& record);
    void dispatch(uint32_t u32Events, Record& record);
    void callAccept();
    void unlink(Record& record);

    int m_nEPollFd;
    int m_nAcceptFd = 0;
    const int m_nMaxEvents;
    int m_nReady = 0; // events of the pass; reactor's thread only, as the next two
    bool m_bAcceptAgain = false;
    bool m_bAcceptNext = false;
    Record* m_pNewest = nullptr; // every registration not yet freed
    Thread m_thread;             // runs pollOnce
    std::unique_ptr<epoll_event[], Free> m_pEvents;
    std::unique_ptr<ICB<RET_E>> m_pAccept;
    std::unique_ptr<ICB<RET_E>> m_pIn;
    std::unique_ptr<ICB<RET_E>> m_pOut;
    std::unique_ptr<ICB<RET_E>> m_pPri;
    std::unique_ptr<ICB<RET_E>> m_pErr;
    std::unique_ptr<ICB<RET_E>> m_pHup;
};
