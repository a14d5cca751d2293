// Notes chosen library calls of a test program, or of a whole service, with their arguments.
#define _GNU_SOURCE
#include "CallJournal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "CallNote.h"

#define MAX_LINES 8192
#define MAX_LINE 112
#define FIRST_DESCRIPTOR 300 // of those that a program leaves alone

struct Line
{
    int bReady;        // written by its thread, atomically, when the rest is complete
    char acThread[16]; // the program's for the first one, else prctl(2), PR_GET_NAME
    char acText[MAX_LINE];
};

static struct Line g_aLine[MAX_LINES + 1]; // the last says that it is full
static size_t g_uLines;                    // claimed
static const char* g_pCalls = "";          // " poll select "; in one of the texts, atomically
static char g_aacText[64][512];            // used in turn: another thread may still read the last
static int g_bOn;
static int g_nFile = -1; // where a preloaded program's lines go

void journalStart(const char* pCalls)
{
    __atomic_store_n(&g_bOn, 0, __ATOMIC_SEQ_CST);
    const size_t uLines = __atomic_exchange_n(&g_uLines, 0, __ATOMIC_SEQ_CST);
    for (size_t i = 0; i < uLines && i <= MAX_LINES; ++i) {
        __atomic_store_n(&g_aLine[i].bReady, 0, __ATOMIC_SEQ_CST);
    }
    if (NULL == pCalls || '\0' == *pCalls) {
        return;
    }
    static size_t s_uText;
    char* pText = g_aacText[s_uText++ % (sizeof(g_aacText) / sizeof(g_aacText[0]))];
    // By hand, here and in journalWants: ThreadSanitizer sees the C library's accesses to the text,
    // but not this file's store that publishes it.
    size_t uLength = 0;
    pText[uLength++] = ' ';
    while ('\0' != *pCalls && uLength < sizeof(g_aacText[0]) - 2) {
        pText[uLength++] = *pCalls++;
    }
    pText[uLength++] = ' ';
    pText[uLength] = '\0';
    __atomic_store_n(&g_pCalls, pText, __ATOMIC_SEQ_CST);
    __atomic_store_n(&g_bOn, 1, __ATOMIC_SEQ_CST);
}

int journalTo(const char* pPath, const char* pCalls)
{
    const int nFile =
        (int)syscall(SYS_openat, AT_FDCWD, pPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    g_nFile = fcntl(nFile, F_DUPFD_CLOEXEC, FIRST_DESCRIPTOR);
    syscall(SYS_close, nFile);
    journalStart(pCalls);
    return (g_nFile < 0) ? -1 : 0;
}

size_t journalCount(void)
{
    const size_t uClaimed = __atomic_load_n(&g_uLines, __ATOMIC_SEQ_CST);
    size_t uReady = 0;
    while (uReady < uClaimed && uReady <= MAX_LINES &&
           __atomic_load_n(&g_aLine[uReady].bReady, __ATOMIC_SEQ_CST)) {
        ++uReady;
    }
    return uReady;
}

const char* journalLine(size_t uIndex)
{
    return (uIndex < journalCount()) ? g_aLine[uIndex].acText : "";
}

const char* journalThread(size_t uIndex)
{
    return (uIndex < journalCount()) ? g_aLine[uIndex].acThread : "";
}

int journalWants(const char* pCall)
{
    if (!__atomic_load_n(&g_bOn, __ATOMIC_SEQ_CST)) {
        return 0;
    }
    for (const char* p = __atomic_load_n(&g_pCalls, __ATOMIC_SEQ_CST); '\0' != *p; ++p) {
        const char* pWord = p + 1;
        const char* pWanted = pCall;
        while ('\0' != *pWanted && *pWord == *pWanted) {
            ++pWord;
            ++pWanted;
        }
        if (' ' == *p && '\0' == *pWanted && ' ' == *pWord) {
            return 1;
        }
    }
    return 0;
}

static void writeToFile(const struct Line* pLine)
{
    char acText[sizeof(pLine->acThread) + sizeof(pLine->acText) + 2];
    const int nLength = snprintf(acText, sizeof(acText), "%s|%s\n", pLine->acThread, pLine->acText);
    (void)!syscall(SYS_write, g_nFile, acText, (size_t)nLength);
}

void journalNote(const char* pCall, const char* pFormat, ...)
{
    const int nError = errno;
    struct Line line;
    memset(&line, 0, sizeof(line));
    (void)prctl(PR_GET_NAME, line.acThread);
    if (getpid() == (pid_t)syscall(SYS_gettid)) { // an emulator gives the first thread its own name
        (void)snprintf(line.acThread, sizeof(line.acThread), "%s", program_invocation_short_name);
    }
    const int nName = snprintf(line.acText, sizeof(line.acText), "%s ", pCall);
    va_list arguments;
    va_start(arguments, pFormat);
    const int nText =
        vsnprintf(line.acText + nName, sizeof(line.acText) - (size_t)nName, pFormat, arguments);
    va_end(arguments);
    if (0 == nText) {
        line.acText[nName - 1] = '\0';
    }
    line.bReady = 1;
    if (g_nFile >= 0) {
        writeToFile(&line);
        errno = nError;
        return;
    }
    const size_t uIndex = __atomic_fetch_add(&g_uLines, 1, __ATOMIC_SEQ_CST);
    if (uIndex <= MAX_LINES) {
        if (MAX_LINES == uIndex) {
            strcpy(line.acText, "journal full");
        }
        memcpy(g_aLine[uIndex].acThread, line.acThread, sizeof(line.acThread));
        memcpy(g_aLine[uIndex].acText, line.acText, sizeof(line.acText));
        __atomic_store_n(&g_aLine[uIndex].bReady, 1, __ATOMIC_SEQ_CST);
    }
    errno = nError;
}
