// The process that watches the guard at work.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <sys/types.h>

#include "ResetPin.h"

/**
 * Starts the worker as a process of its own and only watches: when a beat is missing for a second,
 * or the worker ends in any way of its own, it is killed and the beam is cut from here; where the
 * port does not take that, the reset line is held low. A worker whose parent is gone gets SIGTERM.
 * Tells systemd, where NOTIFY_SOCKET says so, that the guard is ready and alive.
 *
 * The worker's beats bring the port that it has opened: a worker that cannot be killed, or another
 * program that has the port too, keeps it taken, and only root could open it anew.
 */
class GuardParent
{
public:
    /**
     * @param strPort  where the beam is cut
     * @param strResetLine  as ResetPin takes it
     */
    GuardParent(std::string strPort, const std::string& strResetLine)
        : m_strPort(std::move(strPort)), m_resetPin(strResetLine)
    {
    }
    GuardParent(const GuardParent&) = delete;
    GuardParent& operator=(const GuardParent&) = delete;
    ~GuardParent();

    /**
     * Blocks until the worker has ended. SIGTERM and SIGINT are passed on, SIGHUP too.
     * @param worker  runs in the child with the socket to send beats to, a byte each, with or
     * without a descriptor of the port; its result is the child's status
     * @return the worker's status when it ended in order, else 1
     */
    int run(const std::function<int(int)>& worker);

    /** @return the SIGTERM or SIGINT that came, else 0. A worker that was just ending may have
     * missed it. */
    int getEndSignal() const
    {
        return m_nEndSignal;
    }

private:
    void watch(pid_t nWorker, int nBeatFd, int nSignalFd);
    bool takeBeats(int nBeatFd);
    void dropPort();
    static bool waitForEnd(pid_t nWorker, int nMs, int& nStatus);
    /** @param nError  why there was no worker, else 0 */
    int turnOff(int nError);
    static void notify(const char* pText);
    static int64_t nowMs();

    std::string m_strPort;
    ResetPin m_resetPin;
    int m_nEndSignal = 0;
    int m_nPortFd = -1; // the worker's port, while it is there
};
