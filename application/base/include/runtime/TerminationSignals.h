// SIGTERM, SIGINT, SIGSEGV and the like, where installed: a report, an orderly end, a restart.
#pragma once

#include <atomic>
#include <csignal>

#include "Time.h"

/**
 * Complete, but dormant: the service does not install it, so each signal has its default effect
 * there.
 *
 * The handler allocates nothing and takes no lock. Process-wide; install() is for one thread,
 * before the signals come. With the process exit the default dispositions return.
 */
class TerminationSignals
{
public:
    static TerminationSignals& getInstance();
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;
    ~TerminationSignals();

    /**
     * From now on each of SIGTERM, SIGINT, SIGQUIT, SIGILL, SIGABRT, SIGFPE, SIGBUS, SIGHUP,
     * SIGSEGV, SIGIO, SIGSYS, SIGTRAP, SIGTSTP, SIGXCPU and SIGXFSZ is reported on standard output,
     * once: its second arrival takes the default effect. The report starts the restart if wanted,
     * publishes a SystemNeedQuitEvent, and exits with status 9 when nLimit signals were seen.
     * SIGPIPE is ignored.
     *
     * @param bRestart  restart the process (see restartProcess); the limit is then 1
     * @param argv      argument vector for the restart; stays the caller's, for good
     */
    void install(bool bRestart, char* const* argv, const Time& delay, int nLimit);

    /** Signals since install(). Any thread. */
    int getCount() const
    {
        return m_nCount;
    }

    /** True once one was seen. Any thread. */
    bool isSeen() const
    {
        return m_bSeen;
    }

    /**
     * Print the return addresses of the calling thread's stack, innermost first, each as "%p ", on
     * standard output.
     */
    static void printStack();

private:
    TerminationSignals();

    static void onSignal(int nSignal, siginfo_t* pInfo, void* pContext);

    std::atomic<int> m_nCount{0};
    std::atomic<bool> m_bSeen{false};
    // Written by install(), read by the handler:
    int m_nLimit = 0;
    bool m_bRestart = false;
    char* const* m_argv = nullptr;
    Time m_delay;
};
