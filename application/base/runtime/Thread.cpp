// A thread that calls one member function again and again, behind a start gate.
#include "Thread.h"

#include <cerrno>
#include <cstring>

#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Time.h"

static const char* const SOURCE_NAME = "Thread.cpp";

namespace {

enum : uint32_t
{
    FLAG_AT_GATE_ONCE = 1, // the thread has reached the start gate for the first time
    FLAG_PAST_GATE = 2,    // it has left the gate and not entered it again
    FLAG_ENDED = 4,        // it has left its loop
    FLAG_STARTED = 8,      // start() was called, and no stop() since
};

int32_t currentTid()
{
    return static_cast<int32_t>(syscall(SYS_gettid));
}

// What the attributes' own functions check in some C libraries, and pthread_create() in others.
int refusedPolicy(int nPolicy)
{
    return -1 == sched_get_priority_min(nPolicy) ? EINVAL : 0;
}

int refusedPriority(int nPolicy, int nPriority)
{
    return nPriority < sched_get_priority_min(nPolicy) ||
                   nPriority > sched_get_priority_max(nPolicy)
               ? EINVAL
               : 0;
}

} // namespace

Thread::~Thread()
{
    destory();
}

int Thread::create()
{
    State& state = *m_pState;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    int nInherit = 0;
    int nRet = pthread_attr_getinheritsched(&attr, &nInherit);
    if (0 != nRet) {
        LOG(2, "pthread_attr_getinheritsched failed! %s\n", strerror(nRet));
        pthread_attr_destroy(&attr);
        return nRet;
    }
    if (PTHREAD_INHERIT_SCHED == nInherit) {
        nRet = pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
        if (0 != nRet) {
            LOG(2, "pthread_attr_setinheritsched failed! %s\n", strerror(nRet));
            pthread_attr_destroy(&attr);
            return nRet;
        }
    }
    pthread_attr_setdetachstate(&attr, state.bJoinable ? PTHREAD_CREATE_JOINABLE
                                                       : PTHREAD_CREATE_DETACHED);
    nRet = pthread_attr_setschedpolicy(&attr, state.nPolicy);
    if (0 == nRet) {
        nRet = refusedPolicy(state.nPolicy);
    }
    if (0 != nRet) {
        LOG(2, "pthread_attr_setschedpolicy failed! %s\n", strerror(nRet));
        pthread_attr_destroy(&attr);
        return nRet;
    }
    sched_param param{};
    param.sched_priority = state.nPriority;
    nRet = pthread_attr_setschedparam(&attr, &param);
    if (0 == nRet) {
        nRet = refusedPriority(state.nPolicy, state.nPriority);
    }
    if (0 != nRet) {
        LOG(2, "pthread_attr_setschedParam failed! %s\n", strerror(nRet)); // sic
        pthread_attr_destroy(&attr);
        return nRet;
    }
    state.bStop = false;
    auto pShared = std::make_unique<std::shared_ptr<State>>(m_pState);
    nRet = pthread_create(&state.handle, &attr, &Thread::theThread, pShared.get());
    pthread_attr_destroy(&attr);
    if (0 != nRet) {
        LOG(2, "pthread_create failed! %s\n", strerror(nRet));
        state.bStop = true;
        return nRet;
    }
    (void)pShared.release(); // the thread's now
    while (0 == state.s32Tid) {
        sleepFor(Time(0, 5000));
    }
    LOG(8, "create thread(tid:%d name:%s)\n", state.s32Tid.load(), state.strName.c_str());
    return 0;
}

void* Thread::theThread(void* pArg)
{
    // A cancelled thread runs these handlers; its C++ objects are destroyed by some C libraries
    // only.
    pthread_cleanup_push(&Thread::releaseState, pArg);
    State& state = **static_cast<std::shared_ptr<State>*>(pArg);
    if (settle(state)) {
        // A cancelled body is the end of the thread as well: the tear-down waits for the flag.
        pthread_cleanup_push(&Thread::markEnded, &state);
        state.run();
        pthread_cleanup_pop(1);
    }
    pthread_cleanup_pop(1);
    return nullptr;
}

bool Thread::settle(State& state)
{
    // Deliberate: before the id is stored; a reader of the id may look for the name.
    prctl(PR_SET_NAME, state.strName.substr(0, 15).c_str(), 0, 0, 0); // 15: prctl(2)
    state.s32Tid = currentTid();
    errno = 0;
    const int nNiceRet = nice(state.nNice);
    if (-1 == nNiceRet && (EPERM == errno || EACCES == errno)) {
        // Deliberate: the text of the returned value, not of errno.
        LOG_AS("theThread", 2, "change nice failed! %s\n", strerror(nNiceRet));
        return false;
    }
    return true;
}

void Thread::releaseState(void* pShared)
{
    delete static_cast<std::shared_ptr<State>*>(pShared);
}

void Thread::markEnded(void* pState)
{
    State& state = *static_cast<State*>(pState);
    (void)state.mtx.lock();
    state.u32Flags |= FLAG_ENDED;
    (void)state.mtx.unlock();
}

void Thread::State::run()
{
    while (!bStop) {
        passGate();
        if (bStop) {
            break;
        }
        nResult = pBody->call();
        if (0 != nResult) {
            break;
        }
    }
}

static void unlockAfterCancel(void* pMutex) NO_THREAD_SAFETY_ANALYSIS
{
    (void)static_cast<Mutex*>(pMutex)->unlockQuietly();
}

void Thread::State::passGate() NO_THREAD_SAFETY_ANALYSIS
{
    (void)mtx.lock();
    pthread_cleanup_push(unlockAfterCancel, &mtx); // waiting is a cancellation point
    u32Flags &= ~static_cast<uint32_t>(FLAG_PAST_GATE);
    u32Flags |= FLAG_AT_GATE_ONCE;
    while (0 == (u32Flags & FLAG_STARTED)) {
        (void)cond.wait(mtx);
    }
    u32Flags |= FLAG_PAST_GATE;
    pthread_cleanup_pop(0);
    (void)mtx.unlock();
}

bool Thread::State::isRunning() const
{
    const uint32_t u32Now = u32Flags;
    return (FLAG_AT_GATE_ONCE | FLAG_PAST_GATE) ==
           (u32Now & (FLAG_AT_GATE_ONCE | FLAG_PAST_GATE | FLAG_ENDED));
}

int Thread::start()
{
    State& state = *m_pState;
    if (state.isRunning()) {
        return 0;
    }
    (void)state.mtx.lock();
    state.u32Flags |= FLAG_STARTED;
    (void)state.cond.signal();
    (void)state.mtx.unlock();
    LOG(8, "start thread(tid:%d name:%s)\n", state.s32Tid.load(), state.strName.c_str());
    return 0;
}

int Thread::stop()
{
    // Kept alive here: the body may stop its own thread while the object is being destroyed.
    const std::shared_ptr<State> pState = m_pState;
    (void)pState->mtx.lock();
    const bool bRunning = pState->isRunning();
    // Deliberate: also when not yet past the gate; else a quick start and stop would leave it
    // running.
    pState->u32Flags &= ~static_cast<uint32_t>(FLAG_STARTED);
    (void)pState->mtx.unlock();
    if (!bRunning) {
        return 0;
    }
    if (currentTid() == pState->s32Tid) {
        LOG(8, "stop thread by myself(tid:%d name:%s)\n", pState->s32Tid.load(),
            pState->strName.c_str());
        pState->passGate();
        return 0;
    }
    while (pState->isRunning()) {
        sleepFor(Time(0, 3000));
    }
    LOG(8, "stop thread(tid:%d name:%s)\n", pState->s32Tid.load(), pState->strName.c_str());
    return 0;
}

int Thread::forceKill()
{
    State& state = *m_pState;
    (void)state.mtx.lock(); // a detached thread can't be gone while its end mark is missing
    // A cancelled thread that is detached may still be running for a while.
    const bool bRunning = !m_bKilled && state.isRunning();
    if (bRunning) {
        state.bStop = true;
        pthread_cancel(state.handle);
    }
    (void)state.mtx.unlock();
    if (!bRunning) {
        return 0;
    }
    if (state.bJoinable) {
        pthread_join(state.handle, nullptr);
    }
    LOG(8, "force killed thread, tid:%d\n", state.s32Tid.load());
    state.s32Tid = 0;
    state.handle = pthread_t{};
    m_bKilled = true;
    return 0;
}

void Thread::destory()
{
    State& state = *m_pState;
    // Deliberate: neither this wait nor the next has a limit, see the header.
    while (0 == (state.u32Flags & FLAG_AT_GATE_ONCE)) {
        sleepFor(Time(0, 10000));
    }
    state.bStop = true;
    while (0 == (state.u32Flags & FLAG_ENDED)) {
        if (!m_bKilled) {
            (void)start();
        }
        sleepFor(Time(0, 3000));
    }
    if (state.bJoinable && !m_bKilled) {
        pthread_join(state.handle, nullptr);
    }
    LOG(8, "destory thread(tid:%d name:%s)\n", state.s32Tid.load(), state.strName.c_str());
    state.handle = pthread_t{};
    state.s32Tid = 0;
}
