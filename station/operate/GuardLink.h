// The station's end of the guard: asks for what the operator wants, and follows what it tells.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "Cond.h"
#include "GuardConnection.h"
#include "Mutex.h"
#include "Thread.h"

/** What the guard has told of itself last; of no meaning but bPresent while that is false. */
struct GuardState
{
    bool bPresent = false;
    std::string strLevel;
    bool bController = false;
    std::string strPortError; // why the controller's port cannot be opened, or nothing
    bool bBeamSeenOff = false;
    bool bResetHeld = false;
    bool bHomed = false;
    bool bPaused = false;
    bool bHeld = false;       // by the controller itself
    uint64_t u64Line = 0;     // of the job's lines, through
    std::string strJob;       // SHA-256 of the last one opened
    int64_t s64Firmware = -1; // bytes taken; -1: none is under way
};

/**
 * Four connections, so that nothing waits for anything else: what the guard tells, requests, beam
 * off, and the job, whose lease is the connection's. A guard that went and came back is found
 * again. Requests come from any thread.
 */
class GuardLink
{
public:
    /** What a request came to; strError is the guard's own words. */
    struct Answer
    {
        enum RESULT_E
        {
            DONE,
            REFUSED,
            GONE,
            LATE
        };
        RESULT_E eResult = GONE;
        std::string strError;
        nlohmann::json content;
    };

    /**
     * Both are called on the link's thread, "station-guard", and may ask the link for nothing.
     * @param onEvent  each notice, in order
     * @param onState  after each look at the guard: every 200 ms, after each notice, and when it
     * goes or comes
     */
    GuardLink(std::string strSocket, std::function<void(const nlohmann::json&)> onEvent,
              std::function<void(const GuardState&)> onState);
    GuardLink(const GuardLink&) = delete;
    GuardLink& operator=(const GuardLink&) = delete;
    ~GuardLink();

    void start();

    /** Nothing is called any more after the return. */
    void stop();

    GuardState getState() const;

    /** Look anew: everything told before this call has been handled. Waits for it, so long at most.
     */
    GuardState refresh(uint64_t u64TimeoutMs);

    /** @param nPassed  stays the caller's; -1: none */
    Answer ask(const nlohmann::json& request, int nPassed = -1);

    /** Past all that others ask. */
    Answer turnOff();

    /** Waits for the guard's copy, 30 s at most. */
    Answer openJob(int nFile, int nLeaseMs);
    Answer renewLease();

private:
    /** A connection and who may use it. */
    struct Line
    {
        Mutex mtx{MUTEX_TYPE_NORMAL};
        GuardConnection connection GUARDED_BY(mtx);
    };

    Answer askOn(Line& line, const nlohmann::json& request, int nPassed, uint64_t u64TimeoutMs);
    int loop();
    bool look();
    void publish(const GuardState& state);

    const std::string m_strSocket;
    const std::function<void(const nlohmann::json&)> m_onEvent;
    const std::function<void(const GuardState&)> m_onState;
    Line m_requests;
    Line m_off;
    Line m_job;
    GuardConnection m_events; // the thread's
    int m_nWake = -1;         // eventfd(2): look now
    std::atomic<bool> m_bEnd{false};

    mutable Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards what follows; innermost
    Cond m_cond;                            // a look has ended
    GuardState m_state GUARDED_BY(m_mtx);
    uint32_t m_u32Begun GUARDED_BY(m_mtx) = 0; // looks
    uint32_t m_u32Ended GUARDED_BY(m_mtx) = 0;

    std::unique_ptr<Thread> m_pThread;
};
