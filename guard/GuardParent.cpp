// The process that watches the guard at work.
#include "GuardParent.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "GuardPort.h"

static const int SILENCE_MS = 1000;

int GuardParent::run(const std::function<int(int)>& worker)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, nSignal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr); // the worker's, too
    int anBeat[2] = {-1, -1};
    if (0 != pipe2(anBeat, O_CLOEXEC | O_NONBLOCK)) {
        perror("kestrel-guard: pipe");
        return 1;
    }
    const pid_t nParent = getpid();
    const pid_t nWorker = fork();
    if (0 == nWorker) {
        close(anBeat[0]);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        _exit((getppid() == nParent) ? worker(anBeat[1]) : 1);
    }
    close(anBeat[1]);
    if (nWorker < 0) {
        perror("kestrel-guard: fork");
        close(anBeat[0]);
        return 1;
    }
    const int nStatus = watch(nWorker, anBeat[0]);
    close(anBeat[0]);
    return nStatus;
}

int GuardParent::watch(pid_t nWorker, int nBeatFd)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, nSignal);
    }
    const int nSignalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    bool bReady = false;
    for (;;) {
        std::array<pollfd, 2> aPoll{{{nBeatFd, POLLIN, 0}, {nSignalFd, POLLIN, 0}}};
        if (0 == poll(aPoll.data(), aPoll.size(), SILENCE_MS)) {
            break;
        }
        signalfd_siginfo info{};
        if (0 != aPoll[1].revents &&
            static_cast<ssize_t>(sizeof(info)) == read(nSignalFd, &info, sizeof(info))) {
            kill(nWorker, static_cast<int>(info.ssi_signo));
        }
        if (0 != aPoll[0].revents) {
            std::array<char, 64> acBeat{};
            if (read(nBeatFd, acBeat.data(), acBeat.size()) <= 0) {
                break; // the worker has ended
            }
            notify(bReady ? "WATCHDOG=1" : "READY=1");
            bReady = true;
        }
    }
    close(nSignalFd);
    // One that has ended by itself keeps its status.
    int nStatus = 0;
    for (int n = 0; n < 50 && 0 == waitpid(nWorker, &nStatus, WNOHANG); ++n) {
        if (n > 0 || !bReady) {
            poll(nullptr, 0, 1);
        }
        if (49 == n) {
            kill(nWorker, SIGKILL);
            waitpid(nWorker, &nStatus, 0);
        }
    }
    if (WIFEXITED(nStatus) && 1 != WEXITSTATUS(nStatus)) {
        return WEXITSTATUS(nStatus);
    }
    const bool bSent = GuardPort::sendOff(m_strPort);
    fprintf(stderr, "kestrel-guard: the worker is gone, beam off %s\n",
            bSent ? "sent" : strerror(errno));
    return 1;
}

/** sd_notify(3) by hand. */
void GuardParent::notify(const char* pText)
{
    const char* const pPath = getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (nullptr == pPath || strlen(pPath) >= sizeof(address.sun_path)) {
        return;
    }
    memcpy(address.sun_path, pPath, strlen(pPath));
    if ('@' == address.sun_path[0]) {
        address.sun_path[0] = '\0'; // an abstract name
    }
    const int nFd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const auto uSize = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(pPath));
    (void)sendto(nFd, pText, strlen(pText), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address), uSize);
    if (nFd >= 0) {
        close(nFd);
    }
}
