// Lets a test program that runs under a user-mode emulator start further programs of the board: the
// kernel of the host can't, so that the emulator is started on them instead.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))

extern char** environ;

// The emulator and its options.
static const char* const EMULATOR[] = {KESTREL_EMULATOR};
static const char PRELOAD[] = "LD_PRELOAD=";

enum
{
    EMULATOR_WORDS = sizeof(EMULATOR) / sizeof(EMULATOR[0]),
    MAX_WORDS = 512, // of a command line or an environment; more fail with E2BIG
};

// What takes the place of a call's path, arguments and environment.
struct Start
{
    char acProgram[4096];
    const char* pPath;
    char* apWord[MAX_WORDS];
    char* apEnvironment[MAX_WORDS];
};

static bool isForeign(const char* pPath)
{
    Elf32_Ehdr header;
    const int nFd = open(pPath, O_RDONLY | O_CLOEXEC);
    if (nFd < 0) {
        return false;
    }
    const ssize_t nRead = read(nFd, &header, sizeof(header));
    close(nFd);
    return (ssize_t)sizeof(header) == nRead && 0 == memcmp(header.e_ident, ELFMAG, SELFMAG) &&
           EM_MIPS == header.e_machine;
}

static bool isPreload(const char* pText)
{
    return 0 == strncmp(PRELOAD, pText, sizeof(PRELOAD) - 1);
}

// Leaves out the preloaded library, which goes to *ppPreload. @return 0 or an error number
static int copyEnvironment(struct Start* pStart, char* const envp[], char** ppPreload)
{
    int nCount = 0;
    for (; NULL != envp && NULL != *envp; envp++) {
        if (isPreload(*envp)) {
            *ppPreload = *envp;
        } else if (nCount < MAX_WORDS - 1) {
            pStart->apEnvironment[nCount++] = *envp;
        } else {
            return E2BIG;
        }
    }
    pStart->apEnvironment[nCount] = NULL;
    return 0;
}

// The emulator's command line in front of a program; @return its words
static int putEmulator(char** apWord, char* pPreload)
{
    int nWord = 0;
    for (int i = 0; i < EMULATOR_WORDS; i++) {
        apWord[nWord++] = (char*)EMULATOR[i];
    }
    if (NULL != pPreload) { // by the board's loader, never by the host's
        apWord[nWord++] = (char*)"-E";
        apWord[nWord++] = pPreload;
    }
    return nWord;
}

// @return 0 or an error number
static int prepare(struct Start* pStart, const char* pPath, char* const argv[], char* const envp[])
{
    pStart->pPath = pPath;
    if (0 == strcmp("/proc/self/exe", pPath)) { // the kernel would take the emulator itself
        const ssize_t nLength = readlink(pPath, pStart->acProgram, sizeof(pStart->acProgram) - 1);
        if (nLength < 0) {
            return errno;
        }
        pStart->acProgram[nLength] = '\0';
        pStart->pPath = pStart->acProgram;
    }
    char* pPreload = NULL;
    const int nError = copyEnvironment(pStart, envp, &pPreload);
    if (0 != nError) {
        return nError;
    }

    int nWord = 0;
    if (NULL != argv[0] && isForeign(pStart->pPath)) {
        nWord = putEmulator(pStart->apWord, pPreload);
        pStart->apWord[nWord++] = (char*)"-0";
        pStart->apWord[nWord++] = *argv++;
        pStart->apWord[nWord++] = (char*)pStart->pPath;
        pStart->pPath = EMULATOR[0];
    }
    bool bEnv = 0 == strcmp("/usr/bin/env", pStart->pPath); // it starts a program in its turn
    for (; NULL != *argv; argv++) {
        if (nWord >= MAX_WORDS - EMULATOR_WORDS - 3) {
            return E2BIG;
        }
        if (bEnv && isPreload(*argv)) {
            pPreload = *argv;
            continue;
        }
        if (bEnv && isForeign(*argv)) {
            nWord += putEmulator(pStart->apWord + nWord, pPreload);
            bEnv = false;
        }
        pStart->apWord[nWord++] = *argv;
    }
    pStart->apWord[nWord] = NULL;
    return 0;
}

EXPORT int execve(const char* pPath, char* const argv[], char* const envp[])
{
    static int (*s_pReal)(const char*, char* const[], char* const[]);
    *(void**)&s_pReal = dlsym(RTLD_NEXT, "execve");
    struct Start start;
    const int nError = prepare(&start, pPath, argv, envp);
    if (0 != nError) {
        errno = nError;
        return -1;
    }
    return s_pReal(start.pPath, start.apWord, start.apEnvironment);
}

EXPORT int execv(const char* pPath, char* const argv[])
{
    return execve(pPath, argv, environ);
}

// Programs of the board are named by a path.
EXPORT int execvp(const char* pFile, char* const argv[])
{
    static int (*s_pReal)(const char*, char* const[]);
    *(void**)&s_pReal = dlsym(RTLD_NEXT, "execvp");
    return isForeign(pFile) ? execv(pFile, argv) : s_pReal(pFile, argv);
}

EXPORT int posix_spawn(pid_t* pPid, const char* pPath, const posix_spawn_file_actions_t* pActions,
                       const posix_spawnattr_t* pAttributes, char* const argv[], char* const envp[])
{
    static int (*s_pReal)(pid_t*, const char*, const posix_spawn_file_actions_t*,
                          const posix_spawnattr_t*, char* const[], char* const[]);
    *(void**)&s_pReal = dlsym(RTLD_NEXT, "posix_spawn");
    struct Start start;
    const int nError = prepare(&start, pPath, argv, envp);
    return 0 != nError ? nError
                       : s_pReal(pPid, start.pPath, pActions, pAttributes, start.apWord,
                                 start.apEnvironment);
}
