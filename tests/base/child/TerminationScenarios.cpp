// Scenarios of the termination signals.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <sys/resource.h>
#include <unistd.h>

#include "DirtyStack.h"
#include "EventBus.h"
#include "Fault.h"
#include "Scenarios.h"
#include "SystemNeedQuitEvent.h"
#include "TerminationSignals.h"
#include "Time.h"

namespace {

class QuitCounter
{
public:
    QuitCounter()
    {
        EventBus<SystemNeedQuitEvent>::subscribe(this, &QuitCounter::onQuit);
    }
    QuitCounter(const QuitCounter&) = delete;
    QuitCounter& operator=(const QuitCounter&) = delete;
    ~QuitCounter()
    {
        EventBus<SystemNeedQuitEvent>::unsubscribe(this, &QuitCounter::onQuit);
    }
    int onQuit(Event*)
    {
        ++m_nQuits;
        const char acText[] = "quit\n";
        (void)!write(STDOUT_FILENO, acText, sizeof(acText) - 1);
        return 0;
    }
    std::atomic<int> m_nQuits{0};
};

} // namespace

/** A limit, then the signals that are raised one after the other. */
int runTermination(int argc, char** argv)
{
    setvbuf(stdout, nullptr, _IONBF, 0);
    QuitCounter quits;
    TerminationSignals& signals = TerminationSignals::getInstance();
    signals.install(false, argv, Time(), atoi(argv[2]));
    printf("%s\n", (SIG_IGN == signal(SIGPIPE, SIG_IGN)) ? "no SIGPIPE" : "SIGPIPE");
    for (int i = 3; i < argc; ++i) {
        const unsigned long ulBefore = faultThreadAllocations();
        raise(atoi(argv[i]));
        const unsigned long ulAfter = faultThreadAllocations();
        printf("count %d seen %d quits %d allocations %lu\n", signals.getCount(),
               signals.isSeen() ? 1 : 0, quits.m_nQuits.load(), ulAfter - ulBefore);
    }
    return 0;
}

/** Installed, hit, and installed again: it counts from zero. */
int runTerminationAgain(int, char** argv)
{
    setvbuf(stdout, nullptr, _IONBF, 0);
    TerminationSignals& signals = TerminationSignals::getInstance();
    printf("count %d seen %d\n", signals.getCount(), signals.isSeen() ? 1 : 0);
    for (int i = 0; i < 3; ++i) {
        signals.install(false, argv, Time(), 2);
        printf("count %d seen %d\n", signals.getCount(), signals.isSeen() ? 1 : 0);
        raise(SIGTERM);
        printf("count %d seen %d\n", signals.getCount(), signals.isSeen() ? 1 : 0);
    }
    return 0;
}

/** Whoever hears of the end leaves an error behind. */
int runTerminationErrno(int, char** argv)
{
    class Failing
    {
    public:
        int onQuit(Event*)
        {
            errno = EBADF;
            return 0;
        }
    };
    Failing failing;
    TerminationSignals::getInstance().install(false, argv, Time(), 5);
    EventBus<SystemNeedQuitEvent>::subscribe(&failing, &Failing::onQuit);
    errno = ERANGE;
    raise(SIGTERM);
    const int nErrno = errno;
    EventBus<SystemNeedQuitEvent>::unsubscribe(&failing, &Failing::onQuit);
    printf("%s\n", (ERANGE == nErrno) ? "kept" : "lost");
    return 0;
}

/** A signal during the exit, behind the ends of all that was made after the handler. */
int runTerminationLate(int, char** argv)
{
    class Raiser
    {
    public:
        Raiser() = default;
        Raiser(const Raiser&) = delete;
        Raiser& operator=(const Raiser&) = delete;
        ~Raiser()
        {
            raise(SIGTERM);
        }
        int onQuit(Event*)
        {
            const char acText[] = "quit\n";
            (void)!write(STDOUT_FILENO, acText, sizeof(acText) - 1);
            return 0;
        }
    };
    TerminationSignals::getInstance().install(false, argv, Time(), 5);
    static Raiser s_raiser;
    EventBus<SystemNeedQuitEvent>::subscribe(&s_raiser, &Raiser::onQuit);
    return 0;
}

static void tellHandlers()
{
    for (const int nSignal : {SIGTERM, SIGXFSZ, SIGINT, SIGQUIT, SIGPIPE}) {
        struct sigaction current = {};
        (void)sigaction(nSignal, nullptr, &current);
        const auto pHandler = current.sa_handler;
        printf("%s\n", (SIG_DFL == pHandler)   ? "default"
                       : (SIG_IGN == pHandler) ? "ignored"
                                               : "a handler");
    }
}

/** Its own handlers before the object and after it; another's handler stays. */
int runTerminationEnd(int, char** argv)
{
    (void)atexit(tellHandlers); // after the object's end, which is registered later
    TerminationSignals::getInstance().install(false, argv, Time(), 5);
    (void)signal(SIGINT, [](int) {});
    struct sigaction action = {};
    action.sa_sigaction = [](int, siginfo_t*, void*) {};
    action.sa_flags = SA_SIGINFO;
    (void)sigaction(SIGQUIT, &action, nullptr);
    tellHandlers();
    return 0;
}

/** With a restart, and no child process to be had. */
int runTerminationRestartFails(int, char** argv)
{
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NPROC, &none);
    if (0 == geteuid() && 0 != setuid(65534)) { // nobody: the limit does not bind root
        return 100;
    }
    TerminationSignals::getInstance().install(true, argv, Time(), 50);
    raise(SIGTERM);
    return 100;
}

/** Reads what is not there; the report comes once, then the default effect. */
int runTerminationAddress(int, char** argv)
{
    TerminationSignals::getInstance().install(false, argv, Time(), 5);
    volatile uintptr_t uAddress = 0x1230;
    return *reinterpret_cast<volatile int*>(uAddress);
}

/** Another thread holds the lock of standard output while the signal comes. */
int runTerminationLocked(int, char** argv)
{
    TerminationSignals::getInstance().install(false, argv, Time(), 2);
    std::atomic<bool> bHeld{false};
    std::thread holder([&bHeld] {
        flockfile(stdout);
        bHeld = true;
        for (;;) {
            pause();
        }
    });
    while (!bHeld) {
        sleepFor(Time(0, 1000));
    }
    raise(SIGTERM);
    const char acText[] = "returned\n";
    (void)!write(STDOUT_FILENO, acText, sizeof(acText) - 1);
    kill(getpid(), SIGKILL); // an exit would want the lock
    return 100;
}

/** A file: not there yet, then the run that is restarted; there, then the restarted run. */
int runTerminationRestart(int, char** argv)
{
    FILE* pMark = fopen(argv[2], "r");
    if (nullptr != pMark) {
        sigset_t blocked;
        sigprocmask(SIG_BLOCK, nullptr, &blocked);
        printf("restarted %s, blocked:", argv[3]);
        for (int nSignal = 1; nSignal <= SIGRTMAX; ++nSignal) {
            if (1 == sigismember(&blocked, nSignal)) {
                printf(" %d", nSignal);
            }
        }
        printf("\n");
        return 0;
    }
    pMark = fopen(argv[2], "w");
    fclose(pMark);
    TerminationSignals::getInstance().install(true, argv, Time(0, 100000), 50);
    dirtyStack(); // on which the handler runs
    raise(SIGTERM);
    return 100; // with a restart the first signal ends the process
}

int runStack(int, char**)
{
    TerminationSignals::printStack();
    return 0;
}
