// Carries the journal to standard output, however slow that is.
#include "JournalRelay.h"

#include <array>
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

static const int END_MS = 50; // who watches the worker waits for its end meanwhile

JournalRelay::JournalRelay(int nOutput, int nOther)
{
    int anPipe[2] = {-1, -1};
    if (0 != pipe2(anPipe, O_CLOEXEC)) {
        return;
    }
    (void)fcntl(anPipe[1], F_SETFL, O_NONBLOCK);
    m_nProcess = fork();
    if (0 == m_nProcess) {
        close(anPipe[1]);
        if (nOther >= 0) {
            close(nOther);
        }
        copy(anPipe[0], nOutput);
    }
    const int nError = errno;
    close(anPipe[0]);
    if (m_nProcess < 0) {
        close(anPipe[1]);
        errno = nError;
        return;
    }
    m_nFd = anPipe[1];
}

JournalRelay::~JournalRelay()
{
    if (m_nFd < 0) {
        return;
    }
    close(m_nFd);
    for (int n = 0; n < END_MS && 0 == waitpid(m_nProcess, nullptr, WNOHANG); ++n) {
        poll(nullptr, 0, 1);
    }
}

void JournalRelay::copy(int nInput, int nOutput)
{
    sigset_t signals;
    sigfillset(&signals);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    (void)setpriority(PRIO_PROCESS, 0, 0); // the guard's is not for this
    std::array<char, 4096> acData{};
    for (;;) {
        const ssize_t nRead = read(nInput, acData.data(), acData.size());
        if (0 == nRead || (nRead < 0 && EINTR != errno)) {
            _exit(0);
        }
        for (ssize_t nDone = 0; nDone < nRead;) {
            const ssize_t nWritten =
                write(nOutput, acData.data() + nDone, static_cast<size_t>(nRead - nDone));
            if (nWritten < 0 && EAGAIN == errno) { // somebody has made it non-blocking
                pollfd output{nOutput, POLLOUT, 0};
                (void)poll(&output, 1, -1);
            } else if (nWritten <= 0 && !(nWritten < 0 && EINTR == errno)) {
                break; // a full disk may have room again
            } else if (nWritten > 0) {
                nDone += nWritten;
            }
        }
    }
}
