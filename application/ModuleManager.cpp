// Brings the modules up and down, waits for the quit request, and holds the debug console.
#include "ModuleManager.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <typeinfo>

#include "CommucationModule.h"
#include "DebugCmdEvent.h"
#include "EventBus.h"
#include "Log.h"
#include "SystemModule.h"
#include "SystemNeedQuitEvent.h"
#include "Time.h"

static const char* const SOURCE_NAME = "ModuleManager.cpp";

namespace {

const int CONSOLE_LINE = 256; // bytes, with the terminating zero
const int WORD_COUNT = 10;
const int WORD_SIZE = 128; // bytes, with the terminating zero

// The words of the last console line, used again for the next; console thread only.
char g_acWords[WORD_COUNT * WORD_SIZE];
const char* g_apWords[WORD_COUNT];
int g_nWords = 0;

/**
 * Split a line at white space into the word buffers.
 *
 * Deliberate: a word longer than its buffer runs on into the following ones, as an unbounded scan
 * would have it; the next word then overwrites its tail. Only the end of the table bounds it.
 */
int splitWords(const char* pLine)
{
    int nWords = 0;
    const char* p = pLine;
    while (nWords < WORD_COUNT) {
        while (0 != isspace(static_cast<unsigned char>(*p))) {
            ++p;
        }
        if ('\0' == *p) {
            break;
        }
        size_t uLength = 0;
        while ('\0' != p[uLength] && 0 == isspace(static_cast<unsigned char>(p[uLength]))) {
            ++uLength;
        }
        const size_t uStart = static_cast<size_t>(nWords) * WORD_SIZE;
        const size_t uRoom = sizeof(g_acWords) - uStart - 1;
        const size_t uKept = (uLength < uRoom) ? uLength : uRoom;
        memcpy(g_acWords + uStart, p, uKept);
        g_acWords[uStart + uKept] = '\0';
        p += uLength;
        ++nWords;
    }
    return nWords;
}

} // namespace

ModuleManager& ModuleManager::getInstance()
{
    static ModuleManager s_instance;
    return s_instance;
}

ModuleManager::ModuleManager()
    : m_pDebugThread(std::make_unique<Thread>(&ModuleManager::debugCmdThread, this, "tty_debug", 0,
                                              0, 0, false))
{
    // Deliberate: the modules are made here, not when they are brought up. They see the console's
    // commands from their constructors to their destructors: both lie outside the time in which a
    // console can run.
    (void)SystemModule::getInstance();
    (void)CommucationModule::getInstance();
    EventBus<SystemNeedQuitEvent>::subscribe(this, &ModuleManager::onSystemNeedQuit);
}

ModuleManager::~ModuleManager()
{
    EventBus<SystemNeedQuitEvent>::unsubscribe(this, &ModuleManager::onSystemNeedQuit);
}

RET_E ModuleManager::initModule()
{
    return RET_SUCCESS;
}

RET_E ModuleManager::startModule()
{
    return RET_SUCCESS;
}

RET_E ModuleManager::stopModule()
{
    return RET_SUCCESS;
}

RET_E ModuleManager::uninitModule()
{
    return RET_SUCCESS;
}

template <class T> RET_E ModuleManager::initModule()
{
    IModule* p = &T::getInstance();
    // Deliberate: the name as the type information spells it, e.g. "12SystemModule".
    const char* pName = typeid(*p).name();
    LOG(7, "%s init ...\n", pName);
    RET_E eRet = p->init();
    if (RET_SUCCESS != eRet) {
        LOG(7, "%s init failed, error(%d)\n", pName, eRet);
        return eRet;
    }
    LOG(7, "%s running ...\n", pName);
    eRet = p->start();
    if (RET_SUCCESS != eRet) {
        LOG(7, "%s start failed, error(%d)\n", pName, eRet);
        return eRet;
    }
    m_listModule.push_back(p);
    return RET_SUCCESS;
}

RET_E ModuleManager::moduleInitialize()
{
    RET_E eRet = initModule<SystemModule>();
    if (RET_SUCCESS == eRet) {
        eRet = initModule<CommucationModule>();
    }
    if (RET_SUCCESS != eRet) {
        (void)moduleUnInitialize(); // the first failure is the one to report
    }
    return eRet;
}

RET_E ModuleManager::systemLoop(char** argv)
{
    (void)argv;
    while (!m_bQuit) {
        sleepFor(Time(1, 1000));
    }
    return RET_SUCCESS;
}

RET_E ModuleManager::moduleUnInitialize()
{
    for (auto it = m_listModule.rbegin(); it != m_listModule.rend(); ++it) {
        IModule* p = *it;
        const char* pName = typeid(*p).name();
        LOG(7, "%s stop ...\n", pName);
        RET_E eRet = p->stop();
        if (RET_SUCCESS != eRet) {
            LOG(7, "%s stop failed, error(%d)\n", pName, eRet);
            return eRet;
        }
        LOG(7, "%s uninit ...\n", pName);
        eRet = p->uninit();
        if (RET_SUCCESS != eRet) {
            LOG(7, "%s uninit failed, error(%d) ...\n", pName, eRet);
            return eRet;
        }
    }
    return RET_SUCCESS;
}

int ModuleManager::debugCmdThread()
{
    const char* pBuffer = g_acWords;
    for (const char*& pWord : g_apWords) {
        pWord = pBuffer;
        pBuffer += WORD_SIZE;
    }
    // Nothing is flushed: for an input stream that is undefined, and musl drops the lines that were
    // typed ahead.
    char acLine[CONSOLE_LINE];
    if (nullptr == fgets(acLine, sizeof(acLine), stdin)) {
        LOG(2, "fgets err\n");
        return -1;
    }
    if (0 == strcmp(acLine, "\n")) {
        return 0;
    }
    if (0 == strcmp(acLine, "quit\n") || 0 == strcmp(acLine, "q\n")) {
        SystemNeedQuitEvent event;
        EventBus<SystemNeedQuitEvent>::publish(event);
        return 1;
    }
    memset(g_acWords, 0, sizeof(g_acWords));
    g_nWords = splitWords(acLine);
    if (g_nWords < 2) {
        return 0;
    }
    DebugCmdEvent event(&g_nWords, g_apWords);
    EventBus<DebugCmdEvent>::publish(event);
    return 0;
}

int ModuleManager::onDebugCmd(Event* pEvent)
{
    const auto& event = dynamic_cast<DebugCmdEvent&>(*pEvent);
    if (*event.m_pCount >= 2 && 0 == strcmp(event.m_ppWords[0], "SystemManager") &&
        0 == strcmp(event.m_ppWords[1], "shell")) {
        // An interactive shell; its exit status is ignored.
        [[maybe_unused]] const int nStatus = system("/bin/sh");
    }
    return 0;
}

int ModuleManager::onSystemNeedQuit(Event* pEvent)
{
    (void)pEvent;
    m_bQuit = true;
    return 0;
}
