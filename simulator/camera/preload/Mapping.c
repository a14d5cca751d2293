// The camera's buffers that this process has mapped.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include "Session.h"
#include "Word.h"

enum
{
    MAX_MAPPINGS = 64, // of one process; more work but their munmap goes untold
};

struct Mapping
{
    void* pStart; // null: free
    uint32_t u32Offset;
    uint32_t u32Length;
    struct OpenCamera* pSession;
};

static struct Mapping g_mapping[MAX_MAPPINGS];
static uint32_t g_u32Mapped; // mappings in use
static uint32_t g_u32Lock;   // of both

static void rememberMapping(struct OpenCamera* pSession, void* pStart, uint32_t u32Offset,
                            uint32_t u32Length)
{
    lockWord(&g_u32Lock);
    for (int i = 0; i < MAX_MAPPINGS; ++i) {
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
    unlockWord(&g_u32Lock);
}

void* cameraMmap(struct OpenCamera* pSession, void* pAddress, size_t uLength, int nProt, int nFlags,
                 int64_t s64Offset)
{
    struct CameraMapping mapping = {
        .u32Offset = (uint32_t)s64Offset,
        .u32Length = (uint32_t)uLength,
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
    snprintf(acName, sizeof(acName), CAMERA_BUFFERS_FILE, mapping.u32Session,
             mapping.u32Allocation);
    snprintf(acPath, sizeof(acPath), "%s/%s", pSession->acDir, acName);
    const int nFile = realOpen(acPath, O_RDWR | O_CLOEXEC, 0);
    if (nFile < 0) {
        return MAP_FAILED;
    }
    void* pStart = realMmap(pAddress, uLength, nProt, nFlags, nFile, (off_t)s64Offset);
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
    lockWord(&g_u32Lock);
    for (int i = 0; i < MAX_MAPPINGS && NULL == pFound; ++i) {
        pFound = pAddress == g_mapping[i].pStart ? &g_mapping[i] : NULL;
    }
    unlockWord(&g_u32Lock);
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

void cameraForgetMappings(const struct OpenCamera* pSession)
{
    lockWord(&g_u32Lock);
    for (int i = 0; i < MAX_MAPPINGS; ++i) {
        if (NULL != g_mapping[i].pStart && pSession == g_mapping[i].pSession) {
            g_mapping[i].pStart = NULL;
            __atomic_fetch_sub(&g_u32Mapped, 1, __ATOMIC_RELAXED);
        }
    }
    unlockWord(&g_u32Lock);
}
