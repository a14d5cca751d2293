// The C library's functions that kestrel-camera's library replaces.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "Session.h"

/*
 * Loaded before the C library (and after a sanitizer's own library). Everything but the camera and
 * the list of input devices is passed on unchanged. Nothing happens at load time: a process that
 * uses neither gets no connection, no thread, no memory.
 */

#define EXPORT __attribute__((visibility("default")))

// The next definition of a name, looked up at its first use: constructors of other libraries run
// before ours could.
static void* next(void** ppCache, const char* pName)
{
    void* pFunction = __atomic_load_n(ppCache, __ATOMIC_RELAXED);
    if (NULL == pFunction) {
        pFunction = dlsym(RTLD_NEXT, pName);
        __atomic_store_n(ppCache, pFunction, __ATOMIC_RELAXED);
    }
    return pFunction;
}

#define NEXT(type, name)                                                                           \
    __extension__({                                                                                \
        static void* s_pCache;                                                                     \
        (type) next(&s_pCache, name);                                                              \
    })

typedef int (*OpenFunction)(const char*, int, ...);
typedef int (*OpenAtFunction)(int, const char*, int, ...);
typedef int (*Open2Function)(const char*, int);
typedef int (*OpenAt2Function)(int, const char*, int);
typedef FILE* (*FopenFunction)(const char*, const char*);
typedef int (*CloseFunction)(int);
typedef void* (*MmapFunction)(void*, size_t, int, int, int, off_t);
typedef int (*MunmapFunction)(void*, size_t);
typedef int (*FstatFunction)(int, struct stat*);

int realOpen(const char* pPath, int nFlags, mode_t mode)
{
    return NEXT(OpenFunction, "open")(pPath, nFlags, mode);
}

int realClose(int nFd)
{
    return NEXT(CloseFunction, "close")(nFd);
}

void* realMmap(void* pAddress, size_t uLength, int nProt, int nFlags, int nFd, off_t nOffset)
{
    return NEXT(MmapFunction, "mmap")(pAddress, uLength, nProt, nFlags, nFd, nOffset);
}

int realMunmap(void* pAddress, size_t uLength)
{
    return NEXT(MunmapFunction, "munmap")(pAddress, uLength);
}

int realFstat(int nFd, struct stat* pStatus)
{
    return NEXT(FstatFunction, "fstat")(nFd, pStatus);
}

// Whether a text is a number, as the kernel writes it, between two others.
static bool isNumbered(const char* pText, const char* pBegin, const char* pEnd, uint32_t* pNumber)
{
    char acSame[64];
    if (0 != strncmp(pText, pBegin, strlen(pBegin))) {
        return false;
    }
    *pNumber = (uint32_t)strtoul(pText + strlen(pBegin), NULL, 10);
    return snprintf(acSame, sizeof(acSame), "%s%u%s", pBegin, *pNumber, pEnd) <
               (int)sizeof(acSame) &&
           0 == strcmp(pText, acSame);
}

// Every video node is the virtual camera's, so any number but its own is no device.
static bool isNode(const char* pPath, uint32_t* pNumber)
{
    return NULL != pPath && isNumbered(pPath, CAMERA_NODE, "", pNumber) && cameraWanted();
}

// The file to open in place of pPath: one that describes the virtual camera, or pPath itself.
static const char* fileFor(const char* pPath, char* pBuffer, size_t uSize)
{
    uint32_t u32Number = 0;
    char acName[32] = "";
    if (NULL != pPath && 0 == strcmp(pPath, CAMERA_INPUT_LIST)) {
        snprintf(acName, sizeof(acName), CAMERA_INPUTS_FILE);
    } else if (NULL != pPath && isNumbered(pPath, CAMERA_UEVENT, CAMERA_UEVENT_END, &u32Number)) {
        snprintf(acName, sizeof(acName), CAMERA_UEVENT_FILE, u32Number);
    }
    return '\0' != acName[0] && cameraPath(pBuffer, uSize, acName) ? pBuffer : pPath;
}

static mode_t modeOf(int nFlags, va_list arguments)
{
    const bool bMode = 0 != (nFlags & O_CREAT) || O_TMPFILE == (nFlags & O_TMPFILE);
    return bMode ? va_arg(arguments, mode_t) : 0;
}

#define DEFINE_OPEN(name)                                                                          \
    EXPORT int name(const char* pPath, int nFlags, ...)                                            \
    {                                                                                              \
        char acFile[CAMERA_MAX_PATH];                                                              \
        va_list arguments;                                                                         \
        va_start(arguments, nFlags);                                                               \
        const mode_t mode = modeOf(nFlags, arguments);                                             \
        va_end(arguments);                                                                         \
        uint32_t u32Number = 0;                                                                    \
        if (isNode(pPath, &u32Number)) {                                                           \
            return cameraOpen(u32Number, nFlags);                                                  \
        }                                                                                          \
        pPath = fileFor(pPath, acFile, sizeof(acFile));                                            \
        return NEXT(OpenFunction, #name)(pPath, nFlags, mode);                                     \
    }

#define DEFINE_OPENAT(name)                                                                        \
    EXPORT int name(int nDirFd, const char* pPath, int nFlags, ...)                                \
    {                                                                                              \
        char acFile[CAMERA_MAX_PATH];                                                              \
        va_list arguments;                                                                         \
        va_start(arguments, nFlags);                                                               \
        const mode_t mode = modeOf(nFlags, arguments);                                             \
        va_end(arguments);                                                                         \
        uint32_t u32Number = 0;                                                                    \
        if (isNode(pPath, &u32Number)) {                                                           \
            return cameraOpen(u32Number, nFlags);                                                  \
        }                                                                                          \
        pPath = fileFor(pPath, acFile, sizeof(acFile));                                            \
        return NEXT(OpenAtFunction, #name)(nDirFd, pPath, nFlags, mode);                           \
    }

// The fortified forms, which a compiler chooses for calls without a mode.
#define DEFINE_OPEN_2(name)                                                                        \
    EXPORT int name(const char* pPath, int nFlags);                                                \
    EXPORT int name(const char* pPath, int nFlags)                                                 \
    {                                                                                              \
        char acFile[CAMERA_MAX_PATH];                                                              \
        uint32_t u32Number = 0;                                                                    \
        if (isNode(pPath, &u32Number)) {                                                           \
            return cameraOpen(u32Number, nFlags);                                                  \
        }                                                                                          \
        pPath = fileFor(pPath, acFile, sizeof(acFile));                                            \
        return NEXT(Open2Function, #name)(pPath, nFlags);                                          \
    }

#define DEFINE_OPENAT_2(name)                                                                      \
    EXPORT int name(int nDirFd, const char* pPath, int nFlags);                                    \
    EXPORT int name(int nDirFd, const char* pPath, int nFlags)                                     \
    {                                                                                              \
        char acFile[CAMERA_MAX_PATH];                                                              \
        uint32_t u32Number = 0;                                                                    \
        if (isNode(pPath, &u32Number)) {                                                           \
            return cameraOpen(u32Number, nFlags);                                                  \
        }                                                                                          \
        pPath = fileFor(pPath, acFile, sizeof(acFile));                                            \
        return NEXT(OpenAt2Function, #name)(nDirFd, pPath, nFlags);                                \
    }

#define DEFINE_FOPEN(name)                                                                         \
    EXPORT FILE* name(const char* pPath, const char* pMode)                                        \
    {                                                                                              \
        char acFile[CAMERA_MAX_PATH];                                                              \
        pPath = fileFor(pPath, acFile, sizeof(acFile));                                            \
        return NEXT(FopenFunction, #name)(pPath, pMode);                                           \
    }

// Answers a stat of the node; the C library's two records share these fields.
#define FILL_STATUS(pStatus, u32Kind, u32Number)                                                   \
    do {                                                                                           \
        memset((pStatus), 0, sizeof(*(pStatus)));                                                  \
        (pStatus)->st_mode = (CAMERA_NODE_REGULAR == (u32Kind) ? S_IFREG : S_IFCHR) | 0660;        \
        (pStatus)->st_nlink = 1;                                                                   \
        (pStatus)->st_blksize = 4096;                                                              \
        if (CAMERA_NODE_REGULAR != (u32Kind)) {                                                    \
            (pStatus)->st_rdev = makedev(CAMERA_MAJOR, u32Number);                                 \
        }                                                                                          \
    } while (0)

#define ANSWER_NODE(pStatus, u32Number)                                                            \
    do {                                                                                           \
        uint32_t u32Kind = CAMERA_NODE_CHARACTER;                                                  \
        const int nError = cameraStat(u32Number, &u32Kind);                                        \
        if (0 != nError) {                                                                         \
            errno = nError;                                                                        \
            return -1;                                                                             \
        }                                                                                          \
        FILL_STATUS(pStatus, u32Kind, u32Number);                                                  \
        return 0;                                                                                  \
    } while (0)

#define DEFINE_STAT(name, record)                                                                  \
    EXPORT int name(const char* pPath, struct record* pStatus)                                     \
    {                                                                                              \
        uint32_t u32Number = 0;                                                                    \
        if (isNode(pPath, &u32Number)) {                                                           \
            ANSWER_NODE(pStatus, u32Number);                                                       \
        }                                                                                          \
        return NEXT(int (*)(const char*, struct record*), #name)(pPath, pStatus);                  \
    }

#define DEFINE_FSTAT(name, record)                                                                 \
    EXPORT int name(int nFd, struct record* pStatus)                                               \
    {                                                                                              \
        const struct OpenCamera* pSession = cameraOf(nFd);                                         \
        if (NULL != pSession) {                                                                    \
            FILL_STATUS(pStatus, CAMERA_NODE_CHARACTER, pSession->u32Number);                      \
            return 0;                                                                              \
        }                                                                                          \
        return NEXT(int (*)(int, struct record*), #name)(nFd, pStatus);                            \
    }

// What programs linked before version 2.33 of the GNU C library call; their namesakes without the
// version argument serve when the C library gives these to linked programs only.
#define DEFINE_XSTAT(name, plain, record)                                                          \
    EXPORT int name(int nVersion, const char* pPath, struct record* pStatus);                      \
    EXPORT int name(int nVersion, const char* pPath, struct record* pStatus)                       \
    {                                                                                              \
        typedef int (*Versioned)(int, const char*, struct record*);                                \
        uint32_t u32Number = 0;                                                                    \
        if (isNode(pPath, &u32Number)) {                                                           \
            ANSWER_NODE(pStatus, u32Number);                                                       \
        }                                                                                          \
        const Versioned pNext = NEXT(Versioned, #name);                                            \
        return NULL != pNext ? pNext(nVersion, pPath, pStatus)                                     \
                             : NEXT(int (*)(const char*, struct record*), #plain)(pPath, pStatus); \
    }

#define DEFINE_FXSTAT(name, plain, record)                                                         \
    EXPORT int name(int nVersion, int nFd, struct record* pStatus);                                \
    EXPORT int name(int nVersion, int nFd, struct record* pStatus)                                 \
    {                                                                                              \
        typedef int (*Versioned)(int, int, struct record*);                                        \
        const struct OpenCamera* pSession = cameraOf(nFd);                                         \
        if (NULL != pSession) {                                                                    \
            FILL_STATUS(pStatus, CAMERA_NODE_CHARACTER, pSession->u32Number);                      \
            return 0;                                                                              \
        }                                                                                          \
        const Versioned pNext = NEXT(Versioned, #name);                                            \
        return NULL != pNext ? pNext(nVersion, nFd, pStatus)                                       \
                             : NEXT(int (*)(int, struct record*), #plain)(nFd, pStatus);           \
    }

DEFINE_OPEN(open)
DEFINE_OPENAT(openat)
DEFINE_FOPEN(fopen)
DEFINE_STAT(stat, stat)
DEFINE_STAT(lstat, stat)
DEFINE_FSTAT(fstat, stat)

#ifdef __GLIBC__ // and uClibc; elsewhere these are macros for the plain names
DEFINE_OPEN(open64)
DEFINE_OPENAT(openat64)
DEFINE_OPEN_2(__open_2)
DEFINE_OPEN_2(__open64_2)
DEFINE_OPENAT_2(__openat_2)
DEFINE_OPENAT_2(__openat64_2)
DEFINE_FOPEN(fopen64)
DEFINE_STAT(stat64, stat64)
DEFINE_STAT(lstat64, stat64)
DEFINE_FSTAT(fstat64, stat64)
DEFINE_XSTAT(__xstat, stat, stat)
DEFINE_XSTAT(__lxstat, lstat, stat)
DEFINE_FXSTAT(__fxstat, fstat, stat)
DEFINE_XSTAT(__xstat64, stat64, stat64)
DEFINE_XSTAT(__lxstat64, lstat64, stat64)
DEFINE_FXSTAT(__fxstat64, fstat64, stat64)
typedef unsigned long IoctlRequest;
#else
typedef int IoctlRequest;
#endif

EXPORT int ioctl(int nFd, IoctlRequest request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void* pArgument = va_arg(arguments, void*);
    va_end(arguments);

    struct OpenCamera* pSession = cameraOf(nFd);
    const bool bOfDescriptor = FIOCLEX == (uint32_t)request || FIONCLEX == (uint32_t)request ||
                               FIONBIO == (uint32_t)request; // not the driver's: ioctl(2) itself
    if (NULL == pSession || bOfDescriptor) {
        return NEXT(int (*)(int, IoctlRequest, ...), "ioctl")(nFd, request, pArgument);
    }
    const int nError = cameraIoctl(pSession, nFd, (uint32_t)request, pArgument);
    if (0 != nError) {
        errno = nError;
        return -1;
    }
    return 0;
}

EXPORT void* mmap(void* pAddress, size_t uLength, int nProt, int nFlags, int nFd, off_t nOffset)
{
    struct OpenCamera* pSession = cameraOf(nFd);
    if (NULL == pSession || (nFlags & MAP_ANONYMOUS)) {
        return realMmap(pAddress, uLength, nProt, nFlags, nFd, nOffset);
    }
    return cameraMmap(pSession, pAddress, uLength, nProt, nFlags, nOffset);
}

#ifdef __GLIBC__
EXPORT void* mmap64(void* pAddress, size_t uLength, int nProt, int nFlags, int nFd, off64_t nOffset)
{
    struct OpenCamera* pSession = cameraOf(nFd);
    if (NULL == pSession || (nFlags & MAP_ANONYMOUS)) {
        return NEXT(void* (*)(void*, size_t, int, int, int, off64_t),
                    "mmap64")(pAddress, uLength, nProt, nFlags, nFd, nOffset);
    }
    return cameraMmap(pSession, pAddress, uLength, nProt, nFlags, nOffset);
}
#endif

EXPORT int munmap(void* pAddress, size_t uLength)
{
    const int nError = cameraMunmap(pAddress);
    if (0 != nError) {
        errno = nError;
        return -1;
    }
    return realMunmap(pAddress, uLength);
}

EXPORT int close(int nFd)
{
    struct OpenCamera* pSession = cameraOf(nFd);
    return NULL == pSession ? realClose(nFd) : cameraClose(pSession, nFd);
}
