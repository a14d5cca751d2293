// Running shell commands.
#include "Command.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "TempFile.h"
#include "Time.h"

namespace {

const int STATUS_LOST = 255; // fork failed, or the command was killed
const int32_t STEP_US = 10000;

/** Wait within the budget, then kill. @return the wait status, -1 when there is none */
int waitOrKill(pid_t pid, Time budget)
{
    int nStatus = 0;
    pid_t ended = 0;
    for (;;) {
        ended = waitpid(pid, &nStatus, WNOHANG);
        if (ended == pid) {
            return nStatus;
        }
        if (ended < 0 && EINTR != errno) {
            return -1;
        }
        if (budget == Time()) {
            break;
        }
        const Time step(0, STEP_US);
        sleepFor((budget < step) ? budget : step);
        budget -= step;
    }
    kill(pid, SIGKILL);
    do {
        ended = waitpid(pid, &nStatus, 0);
    } while (ended < 0 && EINTR == errno);
    return -1;
}

} // namespace

bool runCommand(const char* pCommand)
{
    const int nStatus = system(pCommand);
    return -1 != nStatus && WIFEXITED(nStatus) && 0 == WEXITSTATUS(nStatus);
}

bool captureCommand(const char* pCommand, char* pOutput, size_t uSize)
{
    if (0 == uSize) {
        return false;
    }
    memset(pOutput, 0, uSize);
    FILE* pPipe = popen(pCommand, "re");
    if (nullptr == pPipe) {
        return false;
    }
    (void)fcntl(fileno(pPipe), F_SETFD, FD_CLOEXEC); // where the library doesn't know "e"
    size_t uUsed = 0;
    ssize_t nRead = 0;
    while (uUsed < uSize - 1) {
        nRead = read(fileno(pPipe), pOutput + uUsed, uSize - 1 - uUsed);
        if (nRead > 0) {
            uUsed += static_cast<size_t>(nRead);
        } else if (0 == nRead || EINTR != errno) {
            break;
        }
    }
    // Output beyond the buffer is not read: the command gets a broken pipe.
    const int nStatus = pclose(pPipe);
    const bool bNotRun = WIFEXITED(nStatus) && 127 == WEXITSTATUS(nStatus); // sh(1): not found
    return nRead >= 0 && !bNotRun;
}

int runCommandTimed(const char* pCommand, const Time& budget)
{
    if (nullptr == pCommand) {
        return -1;
    }
    TempFile script;
    const size_t uLength = strlen(pCommand);
    if (0 != script.create(FILE_FLAG_WRITE) || uLength != script.write(pCommand, uLength) ||
        0 != script.flush()) {
        return STATUS_LOST;
    }
    char acShell[] = "sh";
    char* const apArgument[] = {acShell, const_cast<char*>(script.getPath().c_str()), nullptr};
    const pid_t pid = fork();
    if (0 == pid) {
        execv("/bin/sh", apArgument);
        _exit(127);
    }
    const int nStatus = (pid < 0) ? -1 : waitOrKill(pid, budget);
    // Deliberate: the second byte of the wait status, so 0 for a command that a signal ended.
    return (nStatus < 0) ? STATUS_LOST : (nStatus >> 8) & 0xff;
}
