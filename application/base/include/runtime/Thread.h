// A thread that calls one member function again and again, behind a start gate.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <string>

#include <pthread.h>

#include "Cond.h"
#include "Log.h"
#include "Mutex.h"
#include "ThreadFunc.h"

/**
 * Runs its body on a POSIX thread of its own until the body returns non-zero.
 *
 * The constructor creates the thread at once, but it waits at a gate: start() opens the gate,
 * stop() closes it (the thread parks before its next call), forceKill() cancels the thread. The
 * object that the body belongs to has to outlive the Thread.
 *
 * start, stop and forceKill may be called from any thread, one at a time; stop also from the body.
 */
class Thread
{
public:
    /**
     * @param pFunc      the body: 0 calls it again, anything else ends the thread
     * @param strName    the thread's name; the kernel keeps 15 characters (prctl(2), PR_SET_NAME)
     * @param nNice      nice value; when it is refused the thread ends without ever reaching the
     * gate
     * @param nPolicy    scheduling policy, 0 = ordinary time sharing (sched(7))
     * @param nPriority  scheduling priority, 0 for the ordinary policy
     * @param bJoinable  false creates a detached thread
     */
    template <class C>
    Thread(int (C::*pFunc)(), C* pObj, const std::string& strName, int nNice, int nPolicy,
           int nPriority, bool bJoinable)
        : m_pState(std::make_shared<State>())
    {
        m_pState->strName = strName;
        m_pState->nNice = nNice;
        m_pState->nPolicy = nPolicy;
        m_pState->nPriority = nPriority;
        m_pState->bJoinable = bJoinable;
        m_pState->pBody.reset(new (std::nothrow) ThreadFunc<int, int (C::*)(), C>(pFunc, pObj));
        if (nullptr != m_pState->pBody) {
            (void)create(); // logged there; the object then has no thread
        } else {
            Log::getInstance().log("application/base/include/Thread", __LINE__, "Thread", 2,
                                   "thread callback function new failed !!\n");
        }
    }
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /**
     * Ends the thread and waits for that, without limit: a thread that was never created, or whose
     * nice value was refused, and a body that never returns keep the destructor waiting.
     */
    virtual ~Thread();

    /** Called by the constructor. @return 0 or the platform's error (logged, level 2) */
    int create();

    /** Open the gate; nothing happens while the thread is running. @return 0 */
    int start();

    /**
     * Close the gate and wait until the body's current call has returned; a start that the thread
     * has not yet followed is taken back. Called by the body itself it parks right there, until
     * the next start(). @return 0
     */
    int stop();

    /**
     * Cancel the thread while it is running; it can't be started again. What the body holds at that
     * moment is lost with some C libraries (musl): a lock stays locked, memory and descriptors
     * leak, since no destructor runs there; pthread_cleanup_push(3) handlers do. With others a body
     * that is in a destructor, or in another function that may not throw, ends the process. @return
     * 0
     */
    int forceKill();

    /** Result of the body's last call. Any thread. */
    int getResult() const
    {
        return m_pState->nResult.load();
    }

    /** Kernel thread id, 0 without a thread. Any thread. */
    int32_t getTid() const
    {
        return m_pState->s32Tid.load();
    }

private:
    /**
     * What object and thread share; a detached thread may still be leaving when the object goes.
     */
    struct State
    {
        pthread_t handle{};
        std::atomic<int32_t> s32Tid{0};
        std::unique_ptr<IThreadFunc<int>> pBody;
        std::string strName;
        int nPolicy = 0;
        int nPriority = 0;
        int nNice = 0;
        bool bJoinable = false;
        std::atomic<bool> bStop{false};
        std::atomic<int> nResult{0};
        std::atomic<uint32_t> u32Flags{0}; // FLAG_...; written under mtx
        Mutex mtx{MUTEX_TYPE_ERRORCHECK};  // guards changes of u32Flags, which cond announces
        Cond cond;

        bool isRunning() const;
        void passGate();
        void run();
    };

    static void* theThread(void* pArg);
    static bool settle(State& state); // name, id and nice value; false: the thread ends at once
    static void releaseState(void* pShared);
    static void markEnded(void* pState);
    void destory(); // sic

    std::shared_ptr<State> m_pState;
    bool m_bKilled = false; // forceKill() has ended the thread
};
