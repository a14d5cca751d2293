// One call through the page that this process shares with kestrel-camera.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "Session.h"
#include "Word.h"

static const long WAIT_STEP_NS = 500000000; // between checks that kestrel-camera is still alive
static const int WAIT_STEPS = 4; // after an unplug, when the connection no longer shows it

// Whether nobody is left to answer.
static bool deserted(const struct OpenCamera* pSession, int nSteps)
{
    const struct CameraPage* pPage = pSession->pPage;
    if (0 != __atomic_load_n(&pPage->u32Gone, __ATOMIC_ACQUIRE)) {
        return true;
    }
    if (0 != __atomic_load_n(&pPage->u32Unplugged, __ATOMIC_ACQUIRE)) {
        return nSteps >= WAIT_STEPS;
    }
    struct pollfd look = {.fd = pSession->s32FdPlusOne - 1};
    return 1 == poll(&look, 1, 0) && 0 != (look.revents & POLLHUP) && nSteps > 0;
}

static bool answered(const struct OpenCamera* pSession, uint32_t u32Request)
{
    struct CameraPage* pPage = pSession->pPage;
    for (int nSteps = 0;;) {
        const uint32_t u32Reply = __atomic_load_n(&pPage->u32Reply, __ATOMIC_ACQUIRE);
        if (u32Reply == u32Request) {
            return true;
        }
        if (deserted(pSession, nSteps)) {
            return false;
        }
        if (ETIMEDOUT == waitWord(&pPage->u32Reply, u32Reply, WAIT_STEP_NS)) {
            nSteps++;
        }
    }
}

// Processor time of the calling thread since a reading of the same clock.
static uint32_t microsecondsSince(const struct timespec* pStart)
{
    struct timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return (uint32_t)((now.tv_sec - pStart->tv_sec) * 1000000 +
                      (now.tv_nsec - pStart->tv_nsec + 500) / 1000);
}

int cameraCall(struct OpenCamera* pSession, enum CAMERA_CALL_E eCall, void* pRecord, size_t uSize,
               bool bAlwaysBack, bool* pWait)
{
    const int nSaved = errno;
    struct CameraPage* pPage = pSession->pPage;
    const int nFd = pSession->s32FdPlusOne - 1;
    struct timespec start;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &start);

    int nCancel = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nCancel); // not with the page locked
    lockWord(&pPage->u32Lock);
    memcpy(&pPage->record, pRecord, uSize);
    pPage->u32Call = eCall;
    pPage->u32Pid = (uint32_t)getpid();
    pPage->u32Blocking = 0 == (fcntl(nFd, F_GETFL) & O_NONBLOCK);
    const uint32_t u32Request = __atomic_add_fetch(&pPage->u32Request, 1, __ATOMIC_RELEASE);
    wakeWord(&pPage->u32Request);

    int nError = ENODEV;
    if (answered(pSession, u32Request)) {
        nError = pPage->s32Errno;
        if (0 == nError || bAlwaysBack) {
            memcpy(pRecord, &pPage->record, uSize);
        }
        if (NULL != pWait) {
            *pWait = 0 != pPage->u32Wait;
        }
        for (uint32_t i = 0; i < pPage->u32Packets; ++i) {
            char cPacket = 0;
            (void)recv(nFd, &cPacket, sizeof(cPacket),
                       MSG_DONTWAIT); // it was sent before the reply
        }
    } else if (NULL != pWait) {
        *pWait = false;
    }
    pPage->u32CpuMicroseconds += microsecondsSince(&start);
    unlockWord(&pPage->u32Lock);
    pthread_setcancelstate(nCancel, NULL);
    errno = nSaved;
    return nError;
}
