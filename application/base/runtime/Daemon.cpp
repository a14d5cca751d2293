// Putting the process into the background, and restarting it.
#include "Daemon.h"

#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "RawText.h"
#include "Time.h"

namespace {

const char* const FORK_FAILED = "fork() failed\n";
const char* const SETSID_FAILED = "setsid() failed\n";

// Neither flushes buffers nor runs destructors: those are the other process's as well.
[[noreturn]] void fail(const char* pText, int nStatus)
{
    RawText().append(pText).print(STDERR_FILENO);
    _exit(nStatus);
}

/** The parent exits with 0. */
void forkAndLeave(pid_t pid)
{
    if (pid < 0) {
        fail(FORK_FAILED, 1);
    }
    if (pid > 0) {
        _exit(0);
    }
}

/**
 * fork(2) without the library's part, which takes the memory allocator's locks and would hang in a
 * signal handler that interrupted it. The child must not allocate.
 */
pid_t rawFork()
{
    return static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
}

void runByShell(const char* pCommand)
{
    char acShell[] = "sh";
    char acOption[] = "-c";
    char* const apArgument[] = {acShell, acOption, const_cast<char*>(pCommand), nullptr};
    const pid_t pid = rawFork();
    if (0 == pid) {
        execv("/bin/sh", apArgument);
        _exit(127);
    }
    if (pid > 0) {
        (void)waitpid(pid, nullptr, 0); // the start that follows does not depend on it
    }
}

} // namespace

void daemonise()
{
    fflush(nullptr); // or what is buffered would be lost with the caller
    forkAndLeave(fork());
    if (setsid() < 0) {
        fail(SETSID_FAILED, 1);
    }
    forkAndLeave(fork());
    umask(0);
    if (0 != chdir("/")) {
        fail("chdir(/) failed\n", 0); // Deliberate: status 0
    }
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
    for (int i = 0; i < 3; ++i) {
        (void)open("/dev/null", O_RDWR); // takes the lowest free number: 0, 1, 2
    }
}

void restartProcess(char* const* argv, const Time& delay)
{
    RawText command;
    command.append("kill -9 ").appendDecimal(static_cast<int>(getpid()));
    const pid_t pid = rawFork();
    if (pid < 0) {
        fail(FORK_FAILED, 1);
    }
    if (pid > 0) {
        return;
    }
    for (int nFd = 3; nFd <= 255; ++nFd) {
        close(nFd);
    }
    // A signal handler's mask would be inherited by the new program, deaf to that signal for good.
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    if (setsid() < 0) {
        fail(SETSID_FAILED, 1);
    }
    forkAndLeave(rawFork());
    sleepFor(delay);
    RawText(command)
        .append("   (sub_fd:")
        .appendDecimal(static_cast<int>(syscall(SYS_getpid))) // getpid's may be the library's copy
        .append(")\n")
        .print(STDOUT_FILENO);
    runByShell(command.get());
    sleepFor(Time(3, 0));
    execvp(argv[0], argv);
    _exit(127);
}
