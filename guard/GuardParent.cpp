// The process that watches the guard at work.
#include "GuardParent.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "GuardPort.h"

static const int64_t SILENCE_MS = 1000;
static const int OWN_END_MS = 50; // for a worker that has closed the pipe, or hangs
static const int KILL_MS = 200;   // a process that the kernel holds may not die at all

int64_t GuardParent::nowMs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

GuardParent::~GuardParent()
{
    dropPort();
}

int GuardParent::run(const std::function<int(int)>& worker)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int nSignal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, nSignal);
    }
    sigprocmask(SIG_BLOCK, &signals, nullptr); // the worker's, too
    const int nSignalFd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    int anBeat[2] = {-1, -1};
    if (nSignalFd < 0 ||
        0 != socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, anBeat)) {
        const int nError = errno;
        return turnOff(nError);
    }
    const pid_t nParent = getpid();
    const pid_t nWorker = fork();
    if (0 == nWorker) {
        close(anBeat[0]);
        close(nSignalFd);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        exit((getppid() == nParent) ? worker(anBeat[1]) : 1); // in order: a leak check may follow
    }
    const int nError = (nWorker < 0) ? errno : 0;
    close(anBeat[1]);
    int nStatus = 0;
    bool bEnded = false;
    if (nWorker > 0) {
        watch(nWorker, anBeat[0], nSignalFd);
        bEnded = waitForEnd(nWorker, OWN_END_MS, nStatus);
        if (!bEnded) {
            kill(nWorker, SIGKILL);
            bEnded = waitForEnd(nWorker, KILL_MS, nStatus);
        }
    }
    close(anBeat[0]);
    close(nSignalFd);
    const bool bInOrder = bEnded && WIFEXITED(nStatus) && 1 != WEXITSTATUS(nStatus);
    return bInOrder ? WEXITSTATUS(nStatus) : turnOff(nError);
}

/** Returns when the worker has ended, has missed a beat, or cannot be watched. */
void GuardParent::watch(pid_t nWorker, int nBeatFd, int nSignalFd)
{
    bool bReady = false;
    int64_t s64EndMs = nowMs() + SILENCE_MS;
    for (;;) {
        const int64_t s64LeftMs = s64EndMs - nowMs();
        std::array<pollfd, 3> aPoll{
            {{nBeatFd, POLLIN, 0}, {nSignalFd, POLLIN, 0}, {m_nPortFd, 0, 0}}};
        const int nReady =
            poll(aPoll.data(), aPoll.size(), static_cast<int>((s64LeftMs > 0) ? s64LeftMs : 0));
        if ((nReady < 0 && EINTR != errno) || (nReady <= 0 && s64LeftMs <= 0)) {
            return;
        }
        signalfd_siginfo info{};
        if (nReady > 0 && 0 != aPoll[1].revents &&
            static_cast<ssize_t>(sizeof(info)) == read(nSignalFd, &info, sizeof(info))) {
            const int nSignal = static_cast<int>(info.ssi_signo);
            m_nEndSignal = (SIGHUP == nSignal) ? m_nEndSignal : nSignal;
            kill(nWorker, nSignal);
        }
        if (nReady > 0 && 0 != aPoll[2].revents) {
            dropPort(); // pulled: held on to, it would come back under another number
        }
        if (nReady > 0 && 0 != aPoll[0].revents) {
            if (!takeBeats(nBeatFd)) {
                return; // the worker has ended
            }
            s64EndMs = nowMs() + SILENCE_MS;
            notify(bReady ? "WATCHDOG=1" : "READY=1");
            bReady = true;
        }
    }
}

/** @return false: nothing comes any more */
bool GuardParent::takeBeats(int nBeatFd)
{
    std::array<char, 64> acBeat{};
    iovec piece{acBeat.data(), acBeat.size()};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> acControl{};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = acControl.data();
    message.msg_controllen = acControl.size();
    const ssize_t nRead = recvmsg(nBeatFd, &message, MSG_CMSG_CLOEXEC);
    if (nRead <= 0) {
        return nRead < 0 && EINTR == errno;
    }
    const cmsghdr* const pHeader = CMSG_FIRSTHDR(&message);
    if (nullptr != pHeader && SOL_SOCKET == pHeader->cmsg_level &&
        SCM_RIGHTS == pHeader->cmsg_type && CMSG_LEN(sizeof(int)) == pHeader->cmsg_len) {
        dropPort();
        memcpy(&m_nPortFd, CMSG_DATA(pHeader), sizeof(m_nPortFd));
    }
    return true;
}

void GuardParent::dropPort()
{
    if (m_nPortFd >= 0) {
        close(std::exchange(m_nPortFd, -1));
    }
}

bool GuardParent::waitForEnd(pid_t nWorker, int nMs, int& nStatus)
{
    for (int n = 0; n < nMs; ++n) {
        if (nWorker == waitpid(nWorker, &nStatus, WNOHANG)) {
            return true;
        }
        poll(nullptr, 0, 1);
    }
    return false;
}

int GuardParent::turnOff(int nError)
{
    bool bSent = m_nPortFd >= 0 && GuardPort::sendOff(m_nPortFd);
    dropPort();
    bSent = bSent || GuardPort::sendOff(m_strPort);
    const int nSendError = errno;
    const bool bHeld = !bSent && m_resetPin.isThere() && m_resetPin.hold(true);
    const int nHoldError = errno;
    // Told only now: standard error may take nothing.
    fprintf(stderr, "kestrel-guard: %s%s, beam off %s\n",
            (0 == nError) ? "the worker is gone" : "no worker: ",
            (0 == nError) ? "" : strerror(nError), bSent ? "sent" : strerror(nSendError));
    if (!bSent && m_resetPin.isThere()) {
        fprintf(stderr, "kestrel-guard: reset line %s\n",
                bHeld ? "held low" : strerror(nHoldError));
    }
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
