// The open cameras of this process.
#define _GNU_SOURCE
#include "Session.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Word.h"

enum
{
    MAX_SESSIONS = 16, // of one process; the next open fails with EMFILE
};

static struct OpenCamera g_session[MAX_SESSIONS];
static uint32_t g_u32Open; // sessions in use
static uint32_t g_u32TableLock;

bool cameraWanted(void)
{
    const char* pDir = getenv(CAMERA_DIR_VARIABLE);
    return NULL != pDir && '\0' != pDir[0];
}

bool cameraPath(char* pPath, size_t uSize, const char* pName)
{
    if (!cameraWanted()) {
        return false;
    }
    const int nLength = snprintf(pPath, uSize, "%s/%s", getenv(CAMERA_DIR_VARIABLE), pName);
    return nLength > 0 && (size_t)nLength < uSize;
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

int cameraStat(uint32_t u32Number, uint32_t* pKind)
{
    const int nSaved = errno;
    struct CameraNode node = {
        .u32Call = CAMERA_stat, .u32Pid = (uint32_t)getpid(), .u32Number = u32Number};
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
    for (int i = 0; i < MAX_SESSIONS; ++i) {
        if (nFd + 1 == g_session[i].s32FdPlusOne) {
            cameraForgetMappings(&g_session[i]);
            realMunmap(g_session[i].pPage, CAMERA_PAGE_SIZE);
            g_session[i].s32FdPlusOne = 0;
            __atomic_fetch_sub(&g_u32Open, 1, __ATOMIC_RELAXED);
        }
    }
}

static bool enter(int nFd, const struct CameraNode* pNode, struct CameraPage* pPage)
{
    struct stat status;
    const char* pDir = getenv(CAMERA_DIR_VARIABLE);
    if (NULL == pDir || 0 != realFstat(nFd, &status)) {
        return false;
    }
    bool bEntered = false;
    lockWord(&g_u32TableLock);
    forgetStale(nFd);
    for (int i = 0; i < MAX_SESSIONS && !bEntered; ++i) {
        struct OpenCamera* pSession = &g_session[i];
        if (0 == pSession->s32FdPlusOne) {
            pSession->pid = getpid();
            pSession->inode = status.st_ino;
            pSession->u32Session = pNode->u32Session;
            pSession->u32Number = pNode->u32Number;
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

int cameraOpen(uint32_t u32Number, int nFlags)
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
        .u32Number = u32Number,
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
    if (!enter(nFd, &node, pPage)) {
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

struct OpenCamera* cameraOf(int nFd)
{
    if (0 == __atomic_load_n(&g_u32Open, __ATOMIC_ACQUIRE) || nFd < 0) {
        return NULL;
    }
    for (int i = 0; i < MAX_SESSIONS; ++i) {
        struct OpenCamera* pSession = &g_session[i];
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

int cameraClose(struct OpenCamera* pSession, int nFd)
{
    int nError = 0;
    // A forked child holds a copy: the camera stays open in the parent.
    if (getpid() == pSession->pid) {
        uint32_t u32Unused = 0;
        nError = cameraCall(pSession, CAMERA_close, &u32Unused, sizeof(u32Unused), false, NULL);
    }
    cameraForgetMappings(pSession);
    struct CameraPage* pPage = pSession->pPage;
    lockWord(&g_u32TableLock);
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
