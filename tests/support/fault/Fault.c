// Makes chosen library calls of a test program, or of a whole service, fail on demand.
#define _GNU_SOURCE
// The fortified and 64-bit redirections would rename the functions defined here.
#undef _FORTIFY_SOURCE
#undef _FILE_OFFSET_BITS
#include "Fault.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <link.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include "CallNote.h"
#include "LibraryCall.h"

#define MAX_RULES 48
#define MAX_TEXT 256
#define MAX_ERRORS 32
#define MAX_EXCEPT 4

enum FILTER_E
{
    FILTER_NONE,
    FILTER_NUMBER,
    FILTER_PREFIX
};

struct Rule
{
    char acCall[32];
    char acFilter[MAX_TEXT];
    int bFiltered;
    int bAtLeast; // the filter is the smallest number, not the only one
    unsigned uFirst;
    unsigned uStep;
    unsigned uLast;
    int anError[MAX_ERRORS];
    unsigned uErrors;
};

// What a rule has met so far.
struct Count
{
    unsigned uSeen; // matching calls
    unsigned uHits; // of these, failed
};

struct Range
{
    uintptr_t uStart;
    uintptr_t uEnd;
};

static struct Rule g_aRule[MAX_RULES];
static struct Count g_aOwnCount[MAX_RULES];
static struct Count* g_pCount = g_aOwnCount; // or the report file
static struct Range g_aExcept[MAX_EXCEPT];   // callers that no rule is for
static unsigned g_uExcept;
static unsigned g_uHurry = 1; // divides the sleeps that are made with select
static unsigned g_uRules;     // 0 while the table is being filled
static unsigned g_uHits;
static __thread unsigned long t_ulAllocations __attribute__((tls_model("initial-exec")));

enum
{
    HOLD = INT_MAX // no error: the call waits
};

struct ErrorName
{
    const char* pName;
    int nError;
};

static const struct ErrorName ERROR_NAMES[] = {
    {"EACCES", EACCES},
    {"EADDRINUSE", EADDRINUSE},
    {"EAFNOSUPPORT", EAFNOSUPPORT},
    {"EAGAIN", EAGAIN},
    {"EALREADY", EALREADY},
    {"EBADF", EBADF},
    {"EBUSY", EBUSY},
    {"ECHILD", ECHILD},
    {"ECONNABORTED", ECONNABORTED},
    {"ECONNREFUSED", ECONNREFUSED},
    {"ECONNRESET", ECONNRESET},
    {"EDESTADDRREQ", EDESTADDRREQ},
    {"EDQUOT", EDQUOT},
    {"EEXIST", EEXIST},
    {"EFAULT", EFAULT},
    {"EFBIG", EFBIG},
    {"EHOSTDOWN", EHOSTDOWN},
    {"EHOSTUNREACH", EHOSTUNREACH},
    {"EINTR", EINTR},
    {"EINVAL", EINVAL},
    {"EIO", EIO},
    {"EISCONN", EISCONN},
    {"EISDIR", EISDIR},
    {"ELOOP", ELOOP},
    {"EMFILE", EMFILE},
    {"EMSGSIZE", EMSGSIZE},
    {"ENAMETOOLONG", ENAMETOOLONG},
    {"ENETDOWN", ENETDOWN},
    {"ENETUNREACH", ENETUNREACH},
    {"ENFILE", ENFILE},
    {"ENOBUFS", ENOBUFS},
    {"ENODEV", ENODEV},
    {"ENOENT", ENOENT},
    {"ENOLCK", ENOLCK},
    {"ENOMEM", ENOMEM},
    {"ENONET", ENONET},
    {"ENOPKG", ENOPKG},
    {"ENOPROTOOPT", ENOPROTOOPT},
    {"ENOSPC", ENOSPC},
    {"ENOSR", ENOSR},
    {"ENOSYS", ENOSYS},
    {"ENOTCONN", ENOTCONN},
    {"ENOTDIR", ENOTDIR},
    {"ENOTSOCK", ENOTSOCK},
    {"ENOTSUP", ENOTSUP},
    {"ENOTTY", ENOTTY},
    {"ENXIO", ENXIO},
    {"EOPNOTSUPP", EOPNOTSUPP},
    {"EOVERFLOW", EOVERFLOW},
    {"EPERM", EPERM},
    {"EPIPE", EPIPE},
    {"EPROTO", EPROTO},
    {"EPROTONOSUPPORT", EPROTONOSUPPORT},
    {"ERANGE", ERANGE},
    {"EROFS", EROFS},
    {"ESOCKTNOSUPPORT", ESOCKTNOSUPPORT},
    {"ESRCH", ESRCH},
    {"ETIMEDOUT", ETIMEDOUT},
    {"ETXTBSY", ETXTBSY},
    {"EUSERS", EUSERS},
    {"HOLD", HOLD},
};

static int parseError(const char* pText)
{
    for (size_t i = 0; i < sizeof(ERROR_NAMES) / sizeof(ERROR_NAMES[0]); ++i) {
        if (0 == strcmp(ERROR_NAMES[i].pName, pText)) {
            return ERROR_NAMES[i].nError;
        }
    }
    return atoi(pText);
}

// "E1,E2,...": changes the text.
static int parseErrors(char* pText, struct Rule* pRule)
{
    char* pNext = pText;
    while (NULL != pNext) {
        const char* pError = pNext;
        pNext = strchr(pNext, ',');
        if (NULL != pNext) {
            *pNext++ = '\0';
        }
        const int nError = parseError(pError);
        if (nError <= 0 || MAX_ERRORS == pRule->uErrors) {
            return -1;
        }
        pRule->anError[pRule->uErrors++] = nError;
    }
    return 0;
}

static int parseWhich(const char* pText, struct Rule* pRule)
{
    char* pEnd = NULL;
    pRule->uFirst = (unsigned)strtoul(pText, &pEnd, 10);
    if (pEnd == pText || 0 == pRule->uFirst) {
        return -1;
    }
    pRule->uStep = 1;
    pRule->uLast = pRule->uFirst;
    if ('/' == *pEnd) {
        pRule->uStep = (unsigned)strtoul(pEnd + 1, &pEnd, 10);
        pRule->uLast = UINT32_MAX;
    }
    if ('-' == *pEnd) {
        ++pEnd;
        pRule->uLast = ('\0' == *pEnd) ? UINT32_MAX : (unsigned)strtoul(pEnd, &pEnd, 10);
    }
    return ('\0' == *pEnd && 0 != pRule->uStep && pRule->uLast >= pRule->uFirst) ? 0 : -1;
}

// From the back: the filter may hold colons.
static int parseRule(char* pText, struct Rule* pRule)
{
    memset(pRule, 0, sizeof(*pRule));
    char* pError = strrchr(pText, ':');
    if (NULL == pError) {
        return -1;
    }
    *pError++ = '\0';
    char* pWhich = strrchr(pText, ':');
    if (NULL == pWhich) {
        return -1;
    }
    *pWhich++ = '\0';
    char* pFilter = strchr(pText, '=');
    if (NULL != pFilter) {
        *pFilter++ = '\0';
        pRule->bFiltered = 1;
        const size_t uCall = strlen(pText);
        if (uCall > 0 && '>' == pText[uCall - 1]) {
            pText[uCall - 1] = '\0';
            pRule->bAtLeast = 1;
        }
        if (strlen(pFilter) >= sizeof(pRule->acFilter)) {
            return -1;
        }
        strcpy(pRule->acFilter, pFilter);
    }
    if ('\0' == *pText || strlen(pText) >= sizeof(pRule->acCall)) {
        return -1;
    }
    strcpy(pRule->acCall, pText);
    return (0 == parseErrors(pError, pRule)) ? parseWhich(pWhich, pRule) : -1;
}

__attribute__((visibility("default"))) int faultPlan(const char* pPlan)
{
    static char s_acPlan[2048];
    __atomic_store_n(&g_uRules, 0, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_uHits, 0, __ATOMIC_SEQ_CST);
    if (NULL == pPlan || '\0' == *pPlan) {
        return 0;
    }
    if (strlen(pPlan) >= sizeof(s_acPlan)) {
        return -1;
    }
    strcpy(s_acPlan, pPlan);
    unsigned uRules = 0;
    char* pNext = s_acPlan;
    while (NULL != pNext && '\0' != *pNext) {
        char* pRule = pNext;
        pNext = strchr(pRule, ';');
        if (NULL != pNext) {
            *pNext++ = '\0';
        }
        if (MAX_RULES == uRules || 0 != parseRule(pRule, &g_aRule[uRules])) {
            return -1;
        }
        g_pCount[uRules] = (struct Count){0, 0};
        ++uRules;
    }
    __atomic_store_n(&g_uRules, uRules, __ATOMIC_SEQ_CST);
    return 0;
}

__attribute__((visibility("default"))) unsigned faultHits(void)
{
    return __atomic_load_n(&g_uHits, __ATOMIC_SEQ_CST);
}

__attribute__((visibility("default"))) unsigned long faultThreadAllocations(void)
{
    return t_ulAllocations;
}

static struct Range rangeOf(const struct dl_phdr_info* pInfo)
{
    struct Range range = {UINTPTR_MAX, 0};
    for (int i = 0; i < pInfo->dlpi_phnum; ++i) {
        const ElfW(Phdr)* pPart = &pInfo->dlpi_phdr[i];
        if (PT_LOAD == pPart->p_type) {
            const uintptr_t uStart = pInfo->dlpi_addr + pPart->p_vaddr;
            const uintptr_t uEnd = uStart + pPart->p_memsz;
            range.uStart = (uStart < range.uStart) ? uStart : range.uStart;
            range.uEnd = (uEnd > range.uEnd) ? uEnd : range.uEnd;
        }
    }
    return range;
}

// An object whose file's name holds one of the names, separated by colons.
static int noteExcept(struct dl_phdr_info* pInfo, size_t uSize, void* pNames)
{
    (void)uSize;
    char acNames[MAX_TEXT];
    strncpy(acNames, pNames, sizeof(acNames) - 1);
    acNames[sizeof(acNames) - 1] = '\0';
    char* pNext = NULL;
    for (char* pName = strtok_r(acNames, ":", &pNext); NULL != pName;
         pName = strtok_r(NULL, ":", &pNext)) {
        if (NULL == strstr(pInfo->dlpi_name, pName) || MAX_EXCEPT == g_uExcept) {
            continue;
        }
        g_aExcept[g_uExcept++] = rangeOf(pInfo);
    }
    return 0;
}

static int reportTo(const char* pPath)
{
    const int nFd = (int)syscall(SYS_openat, AT_FDCWD, pPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (nFd < 0 || 0 != ftruncate(nFd, sizeof(g_aOwnCount))) {
        return -1;
    }
    void* pShared = mmap(NULL, sizeof(g_aOwnCount), PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0);
    syscall(SYS_close, nFd);
    if (MAP_FAILED == pShared) {
        return -1;
    }
    g_pCount = pShared;
    return 0;
}

__attribute__((constructor)) static void takePlanFromEnvironment(void)
{
    const char* pPlan = getenv("KESTREL_FAULT");
    const char* pProgram = getenv("KESTREL_FAULT_PROGRAM");
    const char* pJournal = getenv("KESTREL_FAULT_JOURNAL");
    if ((NULL == pPlan && NULL == pJournal) ||
        (NULL != pProgram && 0 != strcmp(pProgram, program_invocation_short_name))) {
        return;
    }
    const char* pExcept = getenv("KESTREL_FAULT_EXCEPT");
    if (NULL != pExcept) {
        (void)dl_iterate_phdr(noteExcept, (void*)(uintptr_t)pExcept);
    }
    const char* pHurry = getenv("KESTREL_FAULT_HURRY");
    if (NULL != pHurry && atoi(pHurry) > 0) {
        g_uHurry = (unsigned)atoi(pHurry);
    }
    const char* pReport = getenv("KESTREL_FAULT_REPORT");
    if ((NULL != pReport && 0 != reportTo(pReport)) || 0 != faultPlan(pPlan)) {
        static const char TEXT[] = "KESTREL_FAULT is not a plan\n";
        (void)!write(STDERR_FILENO, TEXT, sizeof(TEXT) - 1);
        _exit(2);
    }
    unsetenv("KESTREL_FAULT");
    if (NULL != pJournal && 0 != journalTo(pJournal, getenv("KESTREL_FAULT_JOURNAL_CALLS"))) {
        static const char TEXT[] = "KESTREL_FAULT_JOURNAL is not a file\n";
        (void)!write(STDERR_FILENO, TEXT, sizeof(TEXT) - 1);
        _exit(2);
    }
    unsetenv("KESTREL_FAULT_JOURNAL");
}

static int matches(const struct Rule* pRule, enum FILTER_E eFilter, long lNumber, const char* pText)
{
    if (!pRule->bFiltered) {
        return 1;
    }
    if (FILTER_NUMBER == eFilter) {
        const long lFilter = atol(pRule->acFilter);
        return pRule->bAtLeast ? lNumber >= lFilter : lNumber == lFilter;
    }
    return FILTER_PREFIX == eFilter && NULL != pText &&
           0 == strncmp(pText, pRule->acFilter, strlen(pRule->acFilter));
}

static int isExcepted(const void* pCaller)
{
    for (unsigned i = 0; i < g_uExcept; ++i) {
        if ((uintptr_t)pCaller >= g_aExcept[i].uStart && (uintptr_t)pCaller < g_aExcept[i].uEnd) {
            return 1;
        }
    }
    return 0;
}

/** @return the error that this call has to fail with, 0 for none */
static int faultAt(const void* pCaller, const char* pCall, enum FILTER_E eFilter, long lNumber,
                   const char* pText)
{
    const unsigned uRules = __atomic_load_n(&g_uRules, __ATOMIC_SEQ_CST);
    if (0 == uRules || isExcepted(pCaller)) {
        return 0;
    }
    for (unsigned i = 0; i < uRules; ++i) {
        struct Rule* pRule = &g_aRule[i];
        if (0 != strcmp(pRule->acCall, pCall) || !matches(pRule, eFilter, lNumber, pText)) {
            continue;
        }
        const unsigned uCount = __atomic_add_fetch(&g_pCount[i].uSeen, 1, __ATOMIC_SEQ_CST);
        if (uCount >= pRule->uFirst && uCount <= pRule->uLast &&
            0 == (uCount - pRule->uFirst) % pRule->uStep) {
            __atomic_add_fetch(&g_uHits, 1, __ATOMIC_SEQ_CST);
            __atomic_add_fetch(&g_pCount[i].uHits, 1, __ATOMIC_SEQ_CST);
            const int nError =
                pRule->anError[(uCount - pRule->uFirst) / pRule->uStep % pRule->uErrors];
            while (HOLD == nError && 0 != __atomic_load_n(&g_uRules, __ATOMIC_SEQ_CST)) {
                sched_yield();
            }
            return (HOLD == nError) ? 0 : nError;
        }
    }
    return 0;
}

// Of the function that the library's user called.
#define faultOf(...) faultAt(__builtin_return_address(0), __VA_ARGS__)

// dlsym gives an object pointer; ISO C has no cast to a function pointer.
static void resolve(void* ppReal, const char* pName)
{
    void* pFound = dlsym(RTLD_NEXT, pName);
    memcpy(ppReal, &pFound, sizeof(pFound));
}

#define EXPORT __attribute__((visibility("default")))

// The journal's line of a call: a format and its values, made in the intercepting function.
#define NOTE_CALL(NAME, ...)                                                                       \
    do {                                                                                           \
        if (journalWants(NAME) && !isExcepted(__builtin_return_address(0))) {                      \
            journalNote(NAME, __VA_ARGS__);                                                        \
        }                                                                                          \
    } while (0)

// A call that sets errno and returns FAILURE.
#define INTERCEPT(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE, FILTER, NUMBER, TEXT, ...)         \
    EXPORT RESULT NAME PARAMETERS                                                                  \
    {                                                                                              \
        static RESULT(*s_pReal) PARAMETERS;                                                        \
        NOTE_CALL(#NAME, __VA_ARGS__);                                                             \
        const int nError = faultOf(#NAME, FILTER, NUMBER, TEXT);                                   \
        if (0 != nError) {                                                                         \
            errno = nError;                                                                        \
            return FAILURE;                                                                        \
        }                                                                                          \
        if (NULL == s_pReal) {                                                                     \
            resolve(&s_pReal, #NAME);                                                              \
        }                                                                                          \
        return s_pReal ARGUMENTS;                                                                  \
    }

// A call that returns its error.
#define INTERCEPT_RETURNED(NAME, PARAMETERS, ARGUMENTS, ...)                                       \
    EXPORT int NAME PARAMETERS                                                                     \
    {                                                                                              \
        static int(*s_pReal) PARAMETERS;                                                           \
        NOTE_CALL(#NAME, __VA_ARGS__);                                                             \
        const int nError = faultOf(#NAME, FILTER_NONE, 0, NULL);                                   \
        if (0 != nError) {                                                                         \
            return nError;                                                                         \
        }                                                                                          \
        if (NULL == s_pReal) {                                                                     \
            resolve(&s_pReal, #NAME);                                                              \
        }                                                                                          \
        return s_pReal ARGUMENTS;                                                                  \
    }

#define BY_FD_NOTED(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE, ...)                             \
    INTERCEPT(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE, FILTER_NUMBER, fd, NULL, __VA_ARGS__)
#define BY_FD(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE)                                        \
    BY_FD_NOTED(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE, "%d", fd)
#define BY_TEXT(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE)                                      \
    INTERCEPT(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE, FILTER_PREFIX, 0, text, "%s", text)
#define PLAIN_NOTED(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE, ...)                             \
    INTERCEPT(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE, FILTER_NONE, 0, NULL, __VA_ARGS__)
#define PLAIN(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE)                                        \
    PLAIN_NOTED(RESULT, NAME, PARAMETERS, ARGUMENTS, FAILURE, "%s", "")

// Allocations. Looking up the real ones may allocate: that is served from a pool, never reused.
// Volatile: dlsym is declared as a function that calls nothing of ours, and yet it allocates.
static __thread volatile int t_bResolving __attribute__((tls_model("initial-exec")));
static char g_acPool[8192] __attribute__((aligned(16)));
static size_t g_uPoolUsed;

static void* fromPool(size_t uSize)
{
    const size_t uRounded = (uSize + 15) & ~(size_t)15;
    const size_t uStart = __atomic_fetch_add(&g_uPoolUsed, uRounded, __ATOMIC_SEQ_CST);
    return (uStart + uRounded <= sizeof(g_acPool)) ? g_acPool + uStart : NULL;
}

static int isFromPool(const void* pBlock)
{
    return (const char*)pBlock >= g_acPool && (const char*)pBlock < g_acPool + sizeof(g_acPool);
}

// Looked up by the constructor: dlsym itself frees, so that free can't look it up. Blocks that were
// freed before are kept.
static void (*g_pRealFree)(void*);
static void* g_apKept[64];
static unsigned g_uKept;

static void resolveAllocator(void* ppReal, const char* pName)
{
    t_bResolving = 1;
    resolve(ppReal, pName);
    t_bResolving = 0;
}

#ifdef __GLIBC__ // it tells what is allocated: mallinfo2
static size_t usable(void* pBlock)
{
    (void)pBlock;
    return 0;
}
static void forget(size_t uSize)
{
    (void)uSize;
}
static void* counted(void* pBlock)
{
    return pBlock;
}
typedef void* (*REAL_CALLOC_T)(size_t, size_t);
#define REAL_CALLOC "calloc"
static void* zeroed(REAL_CALLOC_T pReal, size_t uCount, size_t uSize)
{
    return pReal(uCount, uSize);
}
#else
static size_t g_uAllocated;

size_t faultAllocatedBytes(void)
{
    return __atomic_load_n(&g_uAllocated, __ATOMIC_SEQ_CST);
}
static size_t usable(void* pBlock)
{
    return malloc_usable_size(pBlock);
}
static void forget(size_t uSize)
{
    __atomic_fetch_sub(&g_uAllocated, uSize, __ATOMIC_SEQ_CST);
}
static void* counted(void* pBlock)
{
    __atomic_fetch_add(&g_uAllocated, usable(pBlock), __ATOMIC_SEQ_CST);
    return pBlock;
}
// Not the C library's own: musl's calls malloc, so that one call would be met twice.
typedef void* (*REAL_CALLOC_T)(size_t);
#define REAL_CALLOC "malloc"
static void* zeroed(REAL_CALLOC_T pReal, size_t uCount, size_t uSize)
{
    size_t uBytes = 0;
    if (__builtin_mul_overflow(uCount, uSize, &uBytes)) {
        errno = ENOMEM;
        return NULL;
    }
    void* const pBlock = counted(pReal(uBytes));
    return (NULL == pBlock) ? NULL : memset(pBlock, 0, uBytes);
}
#endif

// The C++ library, whose operator new allocates with malloc; empty in a program without it.
static struct Range g_runtime;

static int noteRuntime(struct dl_phdr_info* pInfo, size_t uSize, void* pUnused)
{
    (void)uSize;
    (void)pUnused;
    if (NULL != strstr(pInfo->dlpi_name, "libstdc++.so")) {
        g_runtime = rangeOf(pInfo);
    }
    return 0;
}

EXPORT void* malloc(size_t uSize)
{
    static void* (*s_pReal)(size_t);
    if (t_bResolving) {
        return fromPool(uSize);
    }
    ++t_ulAllocations;
    const uintptr_t uCaller = (uintptr_t)__builtin_return_address(0);
    const int bNew = uCaller >= g_runtime.uStart && uCaller < g_runtime.uEnd;
    const int nError = faultOf(bNew ? "new" : "malloc", FILTER_NUMBER, (long)uSize, NULL);
    if (0 != nError) {
        errno = nError;
        return NULL;
    }
    if (NULL == s_pReal) {
        resolveAllocator(&s_pReal, "malloc");
    }
    return counted(s_pReal(uSize));
}

EXPORT void* calloc(size_t uCount, size_t uSize)
{
    static REAL_CALLOC_T s_pReal;
    if (t_bResolving) {
        return fromPool(uCount * uSize); // the pool is zero
    }
    ++t_ulAllocations;
    const int nError = faultOf("calloc", FILTER_NUMBER, (long)(uCount * uSize), NULL);
    if (0 != nError) {
        errno = nError;
        return NULL;
    }
    if (NULL == s_pReal) {
        resolveAllocator(&s_pReal, REAL_CALLOC);
    }
    return zeroed(s_pReal, uCount, uSize);
}

EXPORT void* realloc(void* pBlock, size_t uSize)
{
    static void* (*s_pReal)(void*, size_t);
    if (isFromPool(pBlock)) {
        return NULL; // nobody who looks symbols up grows a block
    }
    ++t_ulAllocations;
    const int nError = faultOf("realloc", FILTER_NUMBER, (long)uSize, NULL);
    if (0 != nError) {
        errno = nError;
        return NULL;
    }
    if (NULL == s_pReal) {
        resolveAllocator(&s_pReal, "realloc");
    }
    const size_t uBefore = usable(pBlock);
    void* const pNew = s_pReal(pBlock, uSize);
    if (NULL != pNew) {
        forget(uBefore);
    }
    return counted(pNew);
}

EXPORT int posix_memalign(void** ppBlock, size_t uAlignment, size_t uSize)
{
    static int (*s_pReal)(void**, size_t, size_t);
    ++t_ulAllocations;
    const int nError = faultOf("posix_memalign", FILTER_NUMBER, (long)uSize, NULL);
    if (0 != nError) {
        return nError;
    }
    if (NULL == s_pReal) {
        resolveAllocator(&s_pReal, "posix_memalign");
    }
    return s_pReal(ppBlock, uAlignment, uSize);
}

// The first of the program's: those of C++ free what they built.
__attribute__((constructor(101))) static void findFree(void)
{
    resolveAllocator(&g_pRealFree, "free");
    (void)dl_iterate_phdr(noteRuntime, NULL);
}

EXPORT void free(void* pBlock)
{
    if (NULL == pBlock || isFromPool(pBlock)) {
        return;
    }
    if (NULL != g_pRealFree) {
        forget(usable(pBlock));
        g_pRealFree(pBlock);
        return;
    }
    const unsigned uSlot = __atomic_fetch_add(&g_uKept, 1, __ATOMIC_SEQ_CST);
    if (uSlot < sizeof(g_apKept) / sizeof(g_apKept[0])) {
        g_apKept[uSlot] = pBlock;
    }
}

// Files.
EXPORT int open(const char* text, int nFlags, ...)
{
    static int (*s_pReal)(const char*, int, ...);
    va_list args;
    va_start(args, nFlags);
    const int nMode = (0 != (nFlags & (O_CREAT | O_TMPFILE))) ? va_arg(args, int) : 0;
    va_end(args);
    NOTE_CALL("open", "%s", text);
    const int nError = faultOf("open", FILTER_PREFIX, 0, text);
    if (0 != nError) {
        errno = nError;
        return -1;
    }
    if (NULL == s_pReal) {
        resolve(&s_pReal, "open");
    }
    return s_pReal(text, nFlags, nMode);
}

EXPORT int fcntl(int fd, int nCommand, ...)
{
    static int (*s_pReal)(int, int, ...);
    va_list args;
    va_start(args, nCommand);
    void* pArgument = va_arg(args, void*);
    va_end(args);
    NOTE_CALL("fcntl", "%d %d", fd, nCommand);
    const int nError = faultOf("fcntl", FILTER_NUMBER, fd, NULL);
    if (0 != nError) {
        errno = nError;
        return -1;
    }
    if (NULL == s_pReal) {
        resolve(&s_pReal, "fcntl");
    }
    return s_pReal(fd, nCommand, pArgument);
}

EXPORT int ioctl(int fd, IoctlRequest request, ...)
{
    static int (*s_pReal)(int, IoctlRequest, ...);
    va_list args;
    va_start(args, request);
    void* pArgument = va_arg(args, void*);
    va_end(args);
    NOTE_CALL("ioctl", "%d 0x%lx", fd, (unsigned long)request);
    const int nError = faultOf("ioctl", FILTER_NUMBER, fd, NULL);
    if (0 != nError) {
        errno = nError;
        return -1;
    }
    if (NULL == s_pReal) {
        resolve(&s_pReal, "ioctl");
    }
    return s_pReal(fd, request, pArgument);
}

BY_TEXT(FILE*, fopen, (const char* text, const char* pMode), (text, pMode), NULL)
#ifdef __GLIBC__
BY_TEXT(FILE*, fopen64, (const char* text, const char* pMode), (text, pMode), NULL)
#endif
BY_FD(FILE*, fdopen, (int fd, const char* pMode), (fd, pMode), NULL)
PLAIN(size_t, fwrite, (const void* pData, size_t uSize, size_t uCount, FILE* pFile),
      (pData, uSize, uCount, pFile), 0)
PLAIN(int, fflush, (FILE * pFile), (pFile), EOF)
BY_TEXT(int, mkostemp, (char* text, int nFlags), (text, nFlags), -1)
BY_TEXT(int, mkdir, (const char* text, mode_t uMode), (text, uMode), -1)
BY_TEXT(int, chdir, (const char* text), (text), -1)
BY_FD_NOTED(ssize_t, read, (int fd, void* pBuffer, size_t uCount), (fd, pBuffer, uCount), -1,
            "%d %zu", fd, uCount)
BY_FD_NOTED(ssize_t, write, (int fd, const void* pData, size_t uCount), (fd, pData, uCount), -1,
            "%d %zu", fd, uCount)
BY_FD(int, close, (int fd), (fd), -1)
BY_TEXT(int, access, (const char* text, int nMode), (text, nMode), -1)
BY_TEXT(int, stat, (const char* text, struct stat* pStat), (text, pStat), -1)
BY_FD_NOTED(ssize_t, pread, (int fd, void* pBuffer, size_t uCount, off_t nOffset),
            (fd, pBuffer, uCount, nOffset), -1, "%d %zu", fd, uCount)
BY_TEXT(int, rename, (const char* text, const char* pNew), (text, pNew), -1)
BY_TEXT(int, symlink, (const char* text, const char* pLink), (text, pLink), -1)
BY_TEXT(int, unlink, (const char* text), (text), -1)
BY_TEXT(int, chmod, (const char* text, mode_t uMode), (text, uMode), -1)
BY_TEXT(int, chown, (const char* text, uid_t uUser, gid_t uGroup), (text, uUser, uGroup), -1)
BY_FD(int, flock, (int fd, int nOperation), (fd, nOperation), -1)
PLAIN(int, pipe, (int anFd[2]), (anFd), -1)
PLAIN(int, pipe2, (int anFd[2], int nFlags), (anFd, nFlags), -1)
PLAIN(int, socketpair, (int nDomain, int nType, int nProtocol, int anFd[2]),
      (nDomain, nType, nProtocol, anFd), -1)
BY_FD(void*, mmap,
      (void* pStart, size_t uLength, int nProtection, int nFlags, int fd, off_t nOffset),
      (pStart, uLength, nProtection, nFlags, fd, nOffset), MAP_FAILED)
PLAIN(int, munmap, (void* pStart, size_t uLength), (pStart, uLength), -1)
BY_TEXT(void*, dlopen, (const char* text, int nFlags), (text, nFlags), NULL)

// Terminals. Weak: a test may have some of its own.
#pragma weak tcgetattr
#pragma weak tcsetattr
BY_FD(int, tcgetattr, (int fd, struct termios* pAttributes), (fd, pAttributes), -1)
BY_FD(int, tcsetattr, (int fd, int nActions, const struct termios* pAttributes),
      (fd, nActions, pAttributes), -1)
PLAIN(int, posix_openpt, (int nFlags), (nFlags), -1)
BY_FD(int, grantpt, (int fd), (fd), -1)
BY_FD(int, unlockpt, (int fd), (fd), -1)
INTERCEPT_RETURNED(ptsname_r, (int fd, char* pBuffer, size_t uSize), (fd, pBuffer, uSize), "%d", fd)

// Sockets.
PLAIN(int, socket, (int nDomain, int nType, int nProtocol), (nDomain, nType, nProtocol), -1)
BY_FD(int, bind, (int fd, const struct sockaddr* pAddress, socklen_t uLength),
      (fd, pAddress, uLength), -1)
BY_FD(int, connect, (int fd, const struct sockaddr* pAddress, socklen_t uLength),
      (fd, pAddress, uLength), -1)
BY_FD_NOTED(int, listen, (int fd, int nBacklog), (fd, nBacklog), -1, "%d %d", fd, nBacklog)
BY_FD(int, accept, (int fd, struct sockaddr* pAddress, socklen_t* pLength), (fd, pAddress, pLength),
      -1)
BY_FD(int, accept4, (int fd, struct sockaddr* pAddress, socklen_t* pLength, int nFlags),
      (fd, pAddress, pLength, nFlags), -1)
BY_FD(int, getsockname, (int fd, struct sockaddr* pAddress, socklen_t* pLength),
      (fd, pAddress, pLength), -1)
BY_FD(int, getpeername, (int fd, struct sockaddr* pAddress, socklen_t* pLength),
      (fd, pAddress, pLength), -1)
BY_FD_NOTED(int, setsockopt, (int fd, int nLevel, int nName, const void* pValue, socklen_t uLength),
            (fd, nLevel, nName, pValue, uLength), -1, "%d %d %d", fd, nLevel, nName)
BY_FD_NOTED(int, getsockopt, (int fd, int nLevel, int nName, void* pValue, socklen_t* pLength),
            (fd, nLevel, nName, pValue, pLength), -1, "%d %d %d", fd, nLevel, nName)
BY_FD_NOTED(int, shutdown, (int fd, int nHow), (fd, nHow), -1, "%d %d", fd, nHow)
BY_FD_NOTED(ssize_t, send, (int fd, const void* pData, size_t uCount, int nFlags),
            (fd, pData, uCount, nFlags), -1, "%d %zu", fd, uCount)
BY_FD_NOTED(ssize_t, recv, (int fd, void* pBuffer, size_t uCount, int nFlags),
            (fd, pBuffer, uCount, nFlags), -1, "%d %zu", fd, uCount)
BY_FD(ssize_t, recvmsg, (int fd, struct msghdr* pMessage, int nFlags), (fd, pMessage, nFlags), -1)
BY_FD(ssize_t, sendmsg, (int fd, const struct msghdr* pMessage, int nFlags), (fd, pMessage, nFlags),
      -1)
BY_FD_NOTED(ssize_t, sendto,
            (int fd, const void* pData, size_t uCount, int nFlags, const struct sockaddr* pAddress,
             socklen_t uLength),
            (fd, pData, uCount, nFlags, pAddress, uLength), -1, "%d %zu", fd, uCount)
BY_FD_NOTED(ssize_t, recvfrom,
            (int fd, void* pBuffer, size_t uCount, int nFlags, struct sockaddr* pAddress,
             socklen_t* pLength),
            (fd, pBuffer, uCount, nFlags, pAddress, pLength), -1, "%d %zu", fd, uCount)

// Waiting.
PLAIN(int, epoll_create, (int nSize), (nSize), -1)
PLAIN(int, epoll_create1, (int nFlags), (nFlags), -1)
EXPORT int epoll_ctl(int nEpoll, int nOperation, int fd, struct epoll_event* pEvent)
{
    static int (*s_pReal)(int, int, int, struct epoll_event*);
    if (EPOLL_CTL_DEL == nOperation || NULL == pEvent) {
        NOTE_CALL("epoll_ctl", "del %d", fd);
    } else {
        const char* const pOperation = (EPOLL_CTL_ADD == nOperation) ? "add" : "mod";
        NOTE_CALL("epoll_ctl", "%s %d 0x%x", pOperation, fd, pEvent->events);
    }
    const int nError = faultOf("epoll_ctl", FILTER_NUMBER, fd, NULL);
    if (0 != nError) {
        errno = nError;
        return -1;
    }
    if (NULL == s_pReal) {
        resolve(&s_pReal, "epoll_ctl");
    }
    return s_pReal(nEpoll, nOperation, fd, pEvent);
}
BY_FD_NOTED(int, epoll_wait, (int fd, struct epoll_event* pEvents, int nMaxEvents, int nTimeout),
            (fd, pEvents, nMaxEvents, nTimeout), -1, "%d %d", nMaxEvents, nTimeout)
EXPORT int select(int nCount, fd_set* pRead, fd_set* pWrite, fd_set* pError,
                  struct timeval* pTimeout)
{
    static int (*s_pReal)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
    if (journalWants("select")) {
        const char* const pFor = (0 == nCount) ? "" : "fd ";
        if (NULL == pTimeout) {
            NOTE_CALL("select", "%s-", pFor);
        } else {
            NOTE_CALL("select", "%s%lld.%06lld", pFor, (long long)pTimeout->tv_sec,
                      (long long)pTimeout->tv_usec);
        }
    }
    const int nError = faultOf("select", FILTER_NONE, 0, NULL);
    if (0 != nError) {
        errno = nError;
        return -1;
    }
    if (NULL == s_pReal) {
        resolve(&s_pReal, "select");
    }
    if (g_uHurry > 1 && 0 == nCount && NULL != pTimeout) {
        const long long llUs = (pTimeout->tv_sec * 1000000LL + pTimeout->tv_usec) / g_uHurry;
        pTimeout->tv_sec = (time_t)(llUs / 1000000);
        pTimeout->tv_usec = (suseconds_t)(llUs % 1000000);
    }
    return s_pReal(nCount, pRead, pWrite, pError, pTimeout);
}
PLAIN_NOTED(int, poll, (struct pollfd * pEntries, nfds_t uCount, int nTimeout),
            (pEntries, uCount, nTimeout), -1, "%d", nTimeout)
PLAIN_NOTED(int, nanosleep, (const struct timespec* pTime, struct timespec* pLeft), (pTime, pLeft),
            -1, "%lld.%09ld", (long long)pTime->tv_sec, (long)pTime->tv_nsec)
INTERCEPT_RETURNED(clock_nanosleep,
                   (clockid_t clock, int nFlags, const struct timespec* pTime,
                    struct timespec* pLeft),
                   (clock, nFlags, pTime, pLeft), "%s%lld.%09ld",
                   (0 != (nFlags & TIMER_ABSTIME)) ? "until " : "", (long long)pTime->tv_sec,
                   (long)pTime->tv_nsec)
PLAIN_NOTED(int, usleep, (useconds_t uTime), (uTime), -1, "%u", (unsigned)uTime)
PLAIN_NOTED(unsigned, sleep, (unsigned uTime), (uTime), uTime, "%u", uTime)

// Processes, signals and threads.
PLAIN(pid_t, fork, (void), (), -1)
PLAIN(int, signalfd, (int nFd, const sigset_t* pSignals, int nFlags), (nFd, pSignals, nFlags), -1)
PLAIN(pid_t, setsid, (void), (), -1)
BY_TEXT(int, execv, (const char* text, char* const argv[]), (text, argv), -1)
BY_TEXT(int, execvp, (const char* text, char* const argv[]), (text, argv), -1)
PLAIN(pid_t, waitpid, (pid_t nPid, int* pStatus, int nOptions), (nPid, pStatus, nOptions), -1)
BY_TEXT(FILE*, popen, (const char* text, const char* pMode), (text, pMode), NULL)
PLAIN(int, pclose, (FILE * pFile), (pFile), -1)
BY_TEXT(int, system, (const char* text), (text), -1)
BY_TEXT(int, puts, (const char* text), (text), EOF)
PLAIN_NOTED(int, nice, (int nIncrement), (nIncrement), -1, "%d", nIncrement)
typedef void (*HANDLER_T)(int);
PLAIN_NOTED(HANDLER_T, signal, (int nSignal, HANDLER_T pHandler), (nSignal, pHandler), SIG_ERR,
            "%d", nSignal)
PLAIN_NOTED(int, kill, (pid_t nPid, int nSignal), (nPid, nSignal), -1, "%d %d", (int)nPid, nSignal)

EXPORT int posix_spawn(pid_t* pPid, const char* pPath, const posix_spawn_file_actions_t* pActions,
                       const posix_spawnattr_t* pAttributes, char* const argv[], char* const envp[])
{
    static int (*s_pReal)(pid_t*, const char*, const posix_spawn_file_actions_t*,
                          const posix_spawnattr_t*, char* const[], char* const[]);
    NOTE_CALL("posix_spawn", "%s", pPath);
    const int nError = faultOf("posix_spawn", FILTER_PREFIX, 0, pPath);
    if (0 != nError) {
        return nError;
    }
    if (NULL == s_pReal) {
        resolve(&s_pReal, "posix_spawn");
    }
    return s_pReal(pPid, pPath, pActions, pAttributes, argv, envp);
}

static const char* stateOf(const pthread_attr_t* pAttributes)
{
    int nState = PTHREAD_CREATE_JOINABLE;
    if (NULL != pAttributes) {
        (void)pthread_attr_getdetachstate(pAttributes, &nState);
    }
    return (PTHREAD_CREATE_JOINABLE == nState) ? "joinable" : "detached";
}

INTERCEPT_RETURNED(pthread_create,
                   (pthread_t * pThread, const pthread_attr_t* pAttributes, void* (*pBody)(void*),
                    void* pArgument),
                   (pThread, pAttributes, pBody, pArgument), "%s", stateOf(pAttributes))
INTERCEPT_RETURNED(pthread_join, (pthread_t thread, void** ppResult), (thread, ppResult), "%s", "")
INTERCEPT_RETURNED(pthread_attr_getinheritsched, (const pthread_attr_t* pAttributes, int* pInherit),
                   (pAttributes, pInherit), "%s", "")
INTERCEPT_RETURNED(pthread_attr_setinheritsched, (pthread_attr_t * pAttributes, int nInherit),
                   (pAttributes, nInherit), "%s", "")
INTERCEPT_RETURNED(pthread_attr_setschedpolicy, (pthread_attr_t * pAttributes, int nPolicy),
                   (pAttributes, nPolicy), "%s", "")
INTERCEPT_RETURNED(pthread_attr_setschedparam,
                   (pthread_attr_t * pAttributes, const struct sched_param* pParameter),
                   (pAttributes, pParameter), "%s", "")
INTERCEPT_RETURNED(pthread_mutex_lock, (pthread_mutex_t * pMutex), (pMutex), "%s", "")
INTERCEPT_RETURNED(pthread_mutexattr_settype, (pthread_mutexattr_t * pAttributes, int nType),
                   (pAttributes, nType), "%s", "")
INTERCEPT_RETURNED(pthread_mutexattr_destroy, (pthread_mutexattr_t * pAttributes), (pAttributes),
                   "%s", "")
INTERCEPT_RETURNED(pthread_mutex_init,
                   (pthread_mutex_t * pMutex, const pthread_mutexattr_t* pAttributes),
                   (pMutex, pAttributes), "%s", "")
INTERCEPT_RETURNED(pthread_condattr_destroy, (pthread_condattr_t * pAttributes), (pAttributes),
                   "%s", "")
INTERCEPT_RETURNED(pthread_cond_init,
                   (pthread_cond_t * pCond, const pthread_condattr_t* pAttributes),
                   (pCond, pAttributes), "%s", "")
INTERCEPT_RETURNED(pthread_cond_signal, (pthread_cond_t * pCond), (pCond), "%s", "")
INTERCEPT_RETURNED(pthread_cond_broadcast, (pthread_cond_t * pCond), (pCond), "%s", "")
INTERCEPT_RETURNED(pthread_cond_wait, (pthread_cond_t * pCond, pthread_mutex_t* pMutex),
                   (pCond, pMutex), "%s", "")
