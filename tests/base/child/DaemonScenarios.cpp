// Scenarios of daemons and restarts.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Daemon.h"
#include "Fault.h"
#include "Scenarios.h"
#include "Time.h"

namespace {

std::string linkOf(const char* pLink)
{
    char acTarget[256] = {0};
    (void)!readlink(pLink, acTarget, sizeof(acTarget) - 1);
    return acTarget;
}

/** Adopts and awaits every descendant. @return their exit statuses, sorted */
std::string statusesOfDescendants()
{
    std::vector<int> vecStatus;
    int nStatus = 0;
    for (;;) {
        const pid_t pid = waitpid(-1, &nStatus, 0);
        if (pid > 0) {
            vecStatus.push_back(WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1);
        } else if (EINTR != errno) {
            break;
        }
    }
    std::sort(vecStatus.begin(), vecStatus.end());
    std::string strStatuses;
    for (const int nOne : vecStatus) {
        strStatuses += " " + std::to_string(nOne);
    }
    return strStatuses;
}

/** Beyond the three of every program. */
int countNullDevices()
{
    int nCount = 0;
    for (int nFd = 3; nFd < 256; ++nFd) {
        const std::string strLink = "/proc/self/fd/" + std::to_string(nFd);
        nCount += ("/dev/null" == linkOf(strLink.c_str())) ? 1 : 0;
    }
    return nCount;
}

void reportDaemon(FILE* pReport, pid_t caller, int nNullsBefore)
{
    fprintf(pReport, "directory %s\n", linkOf("/proc/self/cwd").c_str());
    fprintf(pReport, "mask %o\n", static_cast<unsigned>(umask(0)));
    fprintf(pReport, "0 %s\n1 %s\n2 %s\n", linkOf("/proc/self/fd/0").c_str(),
            linkOf("/proc/self/fd/1").c_str(), linkOf("/proc/self/fd/2").c_str());
    for (int nFd = 0; nFd < 3; ++nFd) {
        fprintf(pReport, "%d %s\n", nFd,
                (O_RDWR == (fcntl(nFd, F_GETFL) & O_ACCMODE)) ? "reads and writes" : "is one-way");
    }
    fprintf(pReport, "%d more\n", countNullDevices() - nNullsBefore);
    fprintf(pReport, "%s session\n", (getsid(0) != getsid(caller)) ? "own" : "caller's");
    fprintf(pReport, "%s leader\n", (getsid(0) == getpid()) ? "session" : "no");
    fflush(pReport);
}

} // namespace

/** A file for the daemon's report, a plan of failing calls or "". */
int runDaemonise(int argc, char** argv)
{
    if (4 != argc) {
        return 100;
    }
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    FILE* pReport = fopen(argv[2], "w");
    const pid_t caller = getpid();
    const int nNulls = countNullDevices();
    if (0 == fork()) {
        printf("buffered\n");
        (void)faultPlan(argv[3]);
        daemonise();
        (void)faultPlan("");
        reportDaemon(pReport, caller, nNulls);
        _exit(42);
    }
    const std::string strStatuses = statusesOfDescendants();
    fclose(pReport);
    printf("statuses%s\n", strStatuses.c_str());
    return 0;
}

/**
 * A file: not there yet, then the run that is restarted, which waits for that unless the last word
 * is "leaves"; there, then the restarted run.
 */
int runRestart(int argc, char** argv)
{
    FILE* pMark = fopen(argv[2], "r");
    if (nullptr != pMark) {
        fclose(pMark);
        printf("restarted %s %s, open:", argv[1], argv[argc - 1]);
        for (int nFd = 3; nFd < 300; ++nFd) {
            if (-1 != fcntl(nFd, F_GETFD)) {
                printf(" %d", nFd);
            }
        }
        printf(", %s\n", (-1 == waitpid(-1, nullptr, WNOHANG)) ? "no child" : "a child");
        return 0;
    }
    pMark = fopen(argv[2], "w"); // no close-on-exec: open in the restarted program unless closed
    for (const int nFd : {3, 4, 100, 255, 256}) {
        (void)dup2(fileno(pMark), nFd);
    }
    restartProcess(argv, Time(0, 100000));
    if (0 == strcmp("leaves", argv[argc - 1])) {
        return 0;
    }
    for (;;) {
        pause(); // until it is killed
    }
}

/** In a process of its own, which is killed. */
void restartAsNothing()
{
    if (0 != fork()) {
        return;
    }
    char acProgram[] = "/no/such/program";
    char* const apArgument[] = {acProgram, nullptr};
    const long lCaller = syscall(SYS_getpid);
    restartProcess(apArgument, Time());
    if (syscall(SYS_getpid) != lCaller) {
        _exit(42); // the restart has come back
    }
    for (;;) {
        pause();
    }
}

/** "fork", "setsid" or "exec": what fails; prints "returned" when the caller goes on. */
int runRestartFails(int, char** argv)
{
    setvbuf(stdout, nullptr, _IONBF, 0);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    if (0 == strcmp("fork", argv[2])) {
        const rlimit none = {0, 0};
        setrlimit(RLIMIT_NPROC, &none);
        if (0 == geteuid() && 0 != setuid(65534)) { // nobody: the limit does not bind root
            return 100;
        }
    } else if (0 == strcmp("exec", argv[2])) {
        restartAsNothing();
        printf("statuses%s\n", statusesOfDescendants().c_str());
        return 0;
    } else {
        (void)faultPlan("setsid:1:EPERM");
    }
    restartProcess(argv, Time());
    printf("returned\n");
    printf("statuses%s\n", statusesOfDescendants().c_str());
    return 0;
}
