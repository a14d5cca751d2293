// The open cameras of this process and their calls to kestrel-camera.
#define _GNU_SOURCE
#include "Session.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

enum
{
    MAX_SESSIONS = 16, // of one process; the next open fails with EMFILE
    MAX_MAPPINGS = 64, // of one process; more work but their munmap goes untold
};

static const long WAIT_STEP_NS = 500000000; // between looks whether kestrel-camera still lives
static const int WAIT_STEPS = 4; // after an unplug, when the connection cannot tell any more

struct CameraSession
{
    int32_t s32FdPlusOne; // 0: free
    pid_t pid;            // that opened it
    ino_t inode;          // of the connection: a descriptor closed behind our back is not ours
    uint32_t u32Session;
    struct CameraPage* pPage;
    char acDir[CAMERA_MAX_PATH];
};

struct Mapping
{
    void* pStart; // null: free
    uint32_t u32Offset;
    uint32_t u32Length;
    struct CameraSession* pSession;
};

static struct CameraSession g_session[MAX_SESSIONS];
static struct Mapping g_mapping[MAX_MAPPINGS];
static uint32_t g_u32Open;   // sessions in use
static uint32_t g_u32Mapped; // mappings in use
static uint32_t g_u32TableLock;

static long futex(uint32_t* pWord, int nOperation, uint32_t u32Value, const void* pTimeout)
{
    return syscall(SYS_futex, pWord, nOperation, u32Value, pTimeout, NULL, 0);
}

// Works between processes, which a mutex of the C library promises only after set-up on both sides.
static void lockWord(uint32_t* pWord)
{
    uint32_t u32Seen = 0;
    if (__atomic_compare_exchange_n(pWord, &u32Seen, 1, false, __ATOMIC_ACQUIRE,
                                    __ATOMIC_RELAXED)) {
        return;
    }
    while (0 != __atomic_exchange_n(pWord, 2, __ATOMIC_ACQUIRE)) {
        futex(pWord, FUTEX_WAIT, 2, NULL);
    }
}

static void unlockWord(uint32_t* pWord)
{
    if (2 == __atomic_exchange_n(pWord, 0, __ATOMIC_RELEASE)) {
        futex(pWord, FUTEX_WAKE, 1, NULL);
    }
}

bool cameraWanted(void)
{
    const char* pDir = getenv(CAMERA_DIR_VARIABLE);
    return NULL != pDir && '\0' != pDir[0];
}

bool cameraPath(char* pPath, size_t nSize, const char* pName)
{
    if (!cameraWanted()) {
        return false;
    }
    const int nLength = snprintf(pPath, nSize, "%s/%s", getenv(CAMERA_DIR_VARIABLE), pName);
    return nLength > 0 && (size_t)nLength < nSize;
}

// A connection on which the node was asked for; the descriptor, or -1 with errno.
static int ask(struct CameraNode* pNode)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (!cameraPath(address.sun_path, sizeof(address.sun_path), CAMERA_DEVICE_SOCKET)) {
        errno = ENOENT;
        return -1;
    }
    const int nFd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (nFd < 0) {
        return -1;
    }
    ssize_t nDone = -1;
    if (0 == connect(nFd, (struct sockaddr*)&address, sizeof(address))) {
        do {
            nDone = send(nFd, pNode, sizeof(*pNode), MSG_NOSIGNAL);
        } while (nDone < 0 && EINTR == errno);
        if (nDone > 0) {
            do {
                nDone = recv(nFd, pNode, sizeof(*pNode), 0);
            } while (nDone < 0 && EINTR == errno);
        }
    }
    if ((ssize_t)sizeof(*pNode) != nDone) {
        realClose(nFd);
        errno = ENOENT; // nobody serves the camera
        return -1;
    }
    if (0 != pNode->s32Errno) {
        realClose(nFd);
        errno = pNode->s32Errno;
        return -1;
    }
    return nFd;
}

int cameraStat(uint32_t* pKind)
{
    const int nSaved = errno;
    struct CameraNode node = {.u32Call = CAMERA_stat, .u32Pid = (uint32_t)getpid()};
    const int nFd = ask(&node);
    const int nError = nFd < 0 ? errno : 0;
    if (nFd >= 0) {
        realClose(nFd);
    }
    errno = nSaved;
    *pKind = node.u32Kind;
    return nError;
}

static struct CameraPage* mapPage(uint32_t u32Session)
{
    char acName[32];
    char acPath[CAMERA_MAX_PATH];
    snprintf(acName, sizeof(acName), CAMERA_SESSION_FILE, u32Session);
    if (!cameraPath(acPath, sizeof(acPath), acName)) {
        errno = ENOENT;
        return NULL;
    }
    const int nFd = realOpen(acPath, O_RDWR | O_CLOEXEC, 0);
    if (nFd < 0) {
        return NULL;
    }
    void* pPage = realMmap(NULL, CAMERA_PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
    const int nSaved = errno;
    realClose(nFd);
    errno = nSaved;
    return MAP_FAILED == pPage ? NULL : pPage;
}

// Free the slots whose descriptor was closed past this library, dup2(2) for one.
static void forgetStale(int nFd)
{
    for (int i = 0; i < MAX_SESSIONS; i++) {
        if (nFd + 1 == g_session[i].s32FdPlusOne) {
            realMunmap(g_session[i].pPage, CAMERA_PAGE_SIZE);
            g_session[i].s32FdPlusOne = 0;
            __atomic_fetch_sub(&g_u32Open, 1, __ATOMIC_RELAXED);
        }
    }
}

static bool enter(int nFd, uint32_t u32Session, struct CameraPage* pPage)
{
    struct stat status;
    const char* pDir = getenv(CAMERA_DIR_VARIABLE);
    if (NULL == pDir || 0 != realFstat(nFd, &status)) {
        return false;
    }
    bool bEntered = false;
    lockWord(&g_u32TableLock);
    forgetStale(nFd);
    for (int i = 0; i < MAX_SESSIONS && !bEntered; i++) {
        struct CameraSession* pSession = &g_session[i];
        if (0 == pSession->s32FdPlusOne) {
            pSession->pid = getpid();
            pSession->inode = status.st_ino;
            pSession->u32Session = u32Session;
            pSession->pPage = pPage;
            snprintf(pSession->acDir, sizeof(pSession->acDir), "%s", pDir);
            __atomic_store_n(&pSession->s32FdPlusOne, nFd + 1, __ATOMIC_RELEASE);
            __atomic_fetch_add(&g_u32Open, 1, __ATOMIC_RELEASE);
            bEntered = true;
        }
    }
    unlockWord(&g_u32TableLock);
    return bEntered;
}

int cameraOpen(int nFlags)
{
    const int nAccess = nFlags & O_ACCMODE;
    struct CameraNode node = {
        .u32Call = CAMERA_open,
        .u32Pid = (uint32_t)getpid(),
        .u32Flags = (O_RDONLY == nAccess   ? CAMERA_OPEN_READ
                     : O_WRONLY == nAccess ? CAMERA_OPEN_WRITE
                                           : CAMERA_OPEN_READ | CAMERA_OPEN_WRITE) |
                    (nFlags & O_NONBLOCK ? CAMERA_OPEN_NONBLOCK : 0) |
                    (nFlags & O_CLOEXEC ? CAMERA_OPEN_CLOEXEC : 0),
    };
    const int nFd = ask(&node);
    if (nFd < 0) {
        return -1;
    }
    // Readable from the start, because nothing streams yet: wait for the packet that says so.
    char cPacket = 0;
    while (recv(nFd, &cPacket, sizeof(cPacket), MSG_PEEK) < 0 && EINTR == errno) {
    }
    struct CameraPage* pPage = mapPage(node.u32Session);
    if (NULL == pPage) {
        const int nSaved = errno;
        realClose(nFd);
        errno = nSaved;
        return -1;
    }
    if (!enter(nFd, node.u32Session, pPage)) {
        realMunmap(pPage, CAMERA_PAGE_SIZE);
        realClose(nFd);
        errno = EMFILE;
        return -1;
    }
    if (!(nFlags & O_CLOEXEC)) {
        fcntl(nFd, F_SETFD, 0);
    }
    if (nFlags & O_NONBLOCK) {
        fcntl(nFd, F_SETFL, O_NONBLOCK);
    }
    return nFd;
}

struct CameraSession* cameraOf(int nFd)
{
    if (0 == __atomic_load_n(&g_u32Open, __ATOMIC_ACQUIRE) || nFd < 0) {
        return NULL;
    }
    for (int i = 0; i < MAX_SESSIONS; i++) {
        struct CameraSession* pSession = &g_session[i];
        if (nFd + 1 == __atomic_load_n(&pSession->s32FdPlusOne, __ATOMIC_ACQUIRE)) {
            struct stat status;
            const int nSaved = errno;
            const bool bOurs = 0 == realFstat(nFd, &status) && status.st_ino == pSession->inode;
            errno = nSaved;
            return bOurs ? pSession : NULL;
        }
    }
    return NULL;
}

// Whether nobody is left to answer.
static bool deserted(const struct CameraSession* pSession, int nSteps)
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

static bool answered(const struct CameraSession* pSession, uint32_t u32Request)
{
    struct CameraPage* pPage = pSession->pPage;
    const struct
    {
        long nSeconds; // as wide as the kernel's old timespec, which SYS_futex takes
        long nNanoseconds;
    } step = {0, WAIT_STEP_NS};

    for (int nSteps = 0;;) {
        const uint32_t u32Reply = __atomic_load_n(&pPage->u32Reply, __ATOMIC_ACQUIRE);
        if (u32Reply == u32Request) {
            return true;
        }
        if (deserted(pSession, nSteps)) {
            return false;
        }
        if (futex(&pPage->u32Reply, FUTEX_WAIT, u32Reply, &step) < 0 && ETIMEDOUT == errno) {
            nSteps++;
        }
    }
}

int cameraCall(struct CameraSession* pSession, enum CameraCall eCall, void* pRecord, size_t nSize,
               bool bAlwaysBack, bool* pWait)
{
    const int nSaved = errno;
    struct CameraPage* pPage = pSession->pPage;
    const int nFd = pSession->s32FdPlusOne - 1;

    int nCancel = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &nCancel); // not with the page locked
    lockWord(&pPage->u32Lock);
    memcpy(&pPage->record, pRecord, nSize);
    pPage->u32Call = eCall;
    pPage->u32Pid = (uint32_t)getpid();
    pPage->u32Blocking = 0 == (fcntl(nFd, F_GETFL) & O_NONBLOCK);
    const uint32_t u32Request = __atomic_add_fetch(&pPage->u32Request, 1, __ATOMIC_RELEASE);
    futex(&pPage->u32Request, FUTEX_WAKE, 1, NULL);

    int nError = ENODEV;
    if (answered(pSession, u32Request)) {
        nError = pPage->s32Errno;
        if (0 == nError || bAlwaysBack) {
            memcpy(pRecord, &pPage->record, nSize);
        }
        if (NULL != pWait) {
            *pWait = 0 != pPage->u32Wait;
        }
        for (uint32_t i = 0; i < pPage->u32Packets; i++) {
            char cPacket = 0;
            (void)recv(nFd, &cPacket, sizeof(cPacket),
                       MSG_DONTWAIT); // it was sent before the reply
        }
    } else if (NULL != pWait) {
        *pWait = false;
    }
    unlockWord(&pPage->u32Lock);
    pthread_setcancelstate(nCancel, NULL);
    errno = nSaved;
    return nError;
}

int cameraClose(struct CameraSession* pSession, int nFd)
{
    int nError = 0;
    // A forked child holds a copy: the camera stays open in the parent.
    if (getpid() == pSession->pid) {
        uint32_t u32Unused = 0;
        nError = cameraCall(pSession, CAMERA_close, &u32Unused, sizeof(u32Unused), false, NULL);
    }
    lockWord(&g_u32TableLock);
    struct CameraPage* pPage = pSession->pPage;
    for (int i = 0; i < MAX_MAPPINGS; i++) {
        if (NULL != g_mapping[i].pStart && pSession == g_mapping[i].pSession) {
            g_mapping[i].pStart = NULL; // stays mapped, as the kernel has it
            __atomic_fetch_sub(&g_u32Mapped, 1, __ATOMIC_RELAXED);
        }
    }
    __atomic_store_n(&pSession->s32FdPlusOne, 0, __ATOMIC_RELEASE);
    __atomic_fetch_sub(&g_u32Open, 1, __ATOMIC_RELEASE);
    unlockWord(&g_u32TableLock);
    realMunmap(pPage, CAMERA_PAGE_SIZE);
    const int nResult = realClose(nFd);
    if (0 != nError && ENODEV != nError) { // closing what is gone succeeds
        errno = nError;
        return -1;
    }
    return nResult;
}

static void rememberMapping(struct CameraSession* pSession, void* pStart, uint32_t u32Offset,
                            uint32_t u32Length)
{
    lockWord(&g_u32TableLock);
    for (int i = 0; i < MAX_MAPPINGS; i++) {
        struct Mapping* pMapping = &g_mapping[i];
        if (NULL == pMapping->pStart) {
            pMapping->pStart = pStart;
            pMapping->u32Offset = u32Offset;
            pMapping->u32Length = u32Length;
            pMapping->pSession = pSession;
            __atomic_fetch_add(&g_u32Mapped, 1, __ATOMIC_RELEASE);
            break;
        }
    }
    unlockWord(&g_u32TableLock);
}

void* cameraMmap(struct CameraSession* pSession, void* pAddress, size_t nLength, int nProt,
                 int nFlags, int64_t s64Offset)
{
    struct CameraMapping mapping = {
        .u32Offset = (uint32_t)s64Offset,
        .u32Length = (uint32_t)nLength,
        .u32Flags = (nProt & PROT_READ ? CAMERA_MAP_READ : 0) |
                    (nProt & PROT_WRITE ? CAMERA_MAP_WRITE : 0) |
                    (MAP_SHARED == (nFlags & MAP_TYPE) ? CAMERA_MAP_SHARED : 0),
    };
    const int nError = cameraCall(pSession, CAMERA_mmap, &mapping, sizeof(mapping), false, NULL);
    if (0 != nError) {
        errno = nError;
        return MAP_FAILED;
    }
    char acName[32];
    char acPath[CAMERA_MAX_PATH + sizeof(acName)];
    snprintf(acName, sizeof(acName), CAMERA_BUFFERS_FILE, pSession->u32Session,
             mapping.u32Allocation);
    snprintf(acPath, sizeof(acPath), "%s/%s", pSession->acDir, acName);
    const int nFile = realOpen(acPath, O_RDWR | O_CLOEXEC, 0);
    if (nFile < 0) {
        return MAP_FAILED;
    }
    void* pStart = realMmap(pAddress, nLength, nProt, nFlags, nFile, (off_t)s64Offset);
    const int nSaved = errno;
    realClose(nFile);
    errno = nSaved;
    if (MAP_FAILED != pStart) {
        rememberMapping(pSession, pStart, mapping.u32Offset, mapping.u32Length);
    }
    return pStart;
}

int cameraMunmap(void* pAddress)
{
    if (0 == __atomic_load_n(&g_u32Mapped, __ATOMIC_ACQUIRE) || NULL == pAddress) {
        return 0;
    }
    struct Mapping* pFound = NULL;
    lockWord(&g_u32TableLock);
    for (int i = 0; i < MAX_MAPPINGS && NULL == pFound; i++) {
        pFound = pAddress == g_mapping[i].pStart ? &g_mapping[i] : NULL;
    }
    unlockWord(&g_u32TableLock);
    if (NULL == pFound || getpid() != pFound->pSession->pid) {
        return 0;
    }
    struct CameraMapping mapping = {.u32Offset = pFound->u32Offset, .u32Length = pFound->u32Length};
    const int nError =
        cameraCall(pFound->pSession, CAMERA_munmap, &mapping, sizeof(mapping), false, NULL);
    if (0 != nError && ENODEV != nError) { // what is gone can be unmapped
        return nError;
    }
    pFound->pStart = NULL;
    __atomic_fetch_sub(&g_u32Mapped, 1, __ATOMIC_RELAXED);
    return 0;
}
