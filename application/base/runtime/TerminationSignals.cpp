// SIGTERM, SIGINT, SIGSEGV and the like, where installed: a report, an orderly end, a restart.
#include "TerminationSignals.h"

#include <cerrno>

#include <unistd.h>
#include <unwind.h>

#include "Daemon.h"
#include "EventBus.h"
#include "RawText.h"
#include "SystemNeedQuitEvent.h"

namespace {

const int SIGNALS[] = {SIGTERM, SIGINT, SIGQUIT, SIGILL,  SIGABRT, SIGFPE,  SIGBUS, SIGHUP,
                       SIGSEGV, SIGIO,  SIGSYS,  SIGTRAP, SIGTSTP, SIGXCPU, SIGXFSZ};

_Unwind_Reason_Code printFrame(_Unwind_Context* pContext, void* pUnused)
{
    (void)pUnused;
    const _Unwind_Ptr uAddress = _Unwind_GetIP(pContext);
    if (0 != uAddress) { // the outermost frame has none
        RawText().appendHex(uAddress).append(" ").print(STDOUT_FILENO);
    }
    return _URC_NO_REASON;
}

} // namespace

TerminationSignals::TerminationSignals()
{
    // The handler publishes: by then the bus exists, and it outlives the handler.
    (void)EventBus<SystemNeedQuitEvent>::getInstance();
}

TerminationSignals::~TerminationSignals()
{
    for (const int nSignal : SIGNALS) {
        struct sigaction current = {};
        (void)sigaction(nSignal, nullptr, &current);
        if (&TerminationSignals::onSignal == current.sa_sigaction) {
            (void)signal(nSignal, SIG_DFL);
        }
    }
}

TerminationSignals& TerminationSignals::getInstance()
{
    static TerminationSignals s_instance;
    return s_instance;
}

void TerminationSignals::install(bool bRestart, char* const* argv, const Time& delay, int nLimit)
{
    m_nCount = 0;
    m_bSeen = false;
    m_nLimit = bRestart ? 1 : nLimit;
    m_bRestart = bRestart;
    m_argv = argv;
    m_delay = delay;
    struct sigaction action = {};
    action.sa_sigaction = &TerminationSignals::onSignal;
    action.sa_flags = static_cast<int>(SA_SIGINFO | SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (const int nSignal : SIGNALS) {
        (void)sigaction(nSignal, &action, nullptr); // all of them can be caught
    }
    (void)signal(SIGPIPE, SIG_IGN);
}

void TerminationSignals::onSignal(int nSignal, siginfo_t* pInfo, void* pContext)
{
    (void)pContext;
    const int nErrno = errno;
    TerminationSignals& self = getInstance();
    self.m_bSeen = true;
    const int nCount = ++self.m_nCount;
    if (self.m_bRestart) {
        restartProcess(self.m_argv, self.m_delay);
    }
    // A signal sent by a process has no address; the field then holds the sender's ids.
    const auto ulAddress = reinterpret_cast<unsigned long>(pInfo->si_addr);
    RawText()
        .append("\n\n* System is terminated . signal(")
        .appendDecimal(nSignal)
        .append(") addr(")
        .appendHex(ulAddress)
        .append(") \n")
        .print(STDOUT_FILENO);
    SystemNeedQuitEvent event;
    EventBus<SystemNeedQuitEvent>::publish(event);
    if (nCount >= self.m_nLimit) {
        _exit(9);
    }
    errno = nErrno;
}

void TerminationSignals::printStack()
{
    (void)_Unwind_Backtrace(&printFrame, nullptr);
}
