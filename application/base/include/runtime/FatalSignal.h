// The report that is printed when a fatal signal arrives, the orderly end, and the restart.
#pragma once

#include <atomic>
#include <csignal>

#include "Time.h"

/**
 * Complete, but dormant: nothing in the start-up installs it, so the default dispositions apply.
 *
 * The handler allocates nothing and takes no lock. Process-wide; install() is for one thread,
 * before the signals come. With the process exit the default dispositions return.
 */
class FatalSignal
{
public:
    static FatalSignal& getInstance();
    FatalSignal(const FatalSignal&) = delete;
    FatalSignal& operator=(const FatalSignal&) = delete;
    ~FatalSignal();

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

    /** Fatal signals since install(). Any thread. */
    int getCount() const
    {
        return m_nCount;
    }

    /** True once a fatal signal was seen. Any thread. */
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
    FatalSignal();

    static void onSignal(int nSignal, siginfo_t* pInfo, void* pContext);

    std::atomic<int> m_nCount{0};
    std::atomic<bool> m_bSeen{false};
    // Written by install(), read by the handler:
    int m_nLimit = 0;
    bool m_bRestart = false;
    char* const* m_argv = nullptr;
    Time m_delay;
};
