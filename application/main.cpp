// The entry point: the steps that bring the service up, keep it running and take it down.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include "Assert.h"
#include "Command.h"
#include "Log.h"
#include "ModuleManager.h"
#include "Usage.h"

static const char* const SOURCE_NAME = "main.cpp";

int main(int argc, char** argv)
{
    static const char* const FUNCTION = "int main(int, char**)";
    setvbuf(stdout, nullptr, _IOLBF, 0); // printed lines reach the reader of a pipe

    answerUsage(argc, argv); // "--help" and "--version" end here

    if (argc >= 2 && 0 == strcmp(argv[1], "-p")) {
        char acCommand[80];
        const int nPid = static_cast<int>(getpid());
        if (argc >= 3) {
            snprintf(acCommand, sizeof(acCommand), "strace -f -p %d -s %d &", nPid, atoi(argv[2]));
        } else {
            snprintf(acCommand, sizeof(acCommand), "strace -f -p %d &", nPid);
        }
        (void)runCommand(acCommand); // without a tracer the service still runs
    }

    // TerminationSignals is not installed: SIGTERM and the others keep their default effect.
    signal(SIGPIPE, SIG_IGN);

    Log::getInstance().setLevel(5).setLayout(71).setSinks(LOG_SINK_FILE | LOG_SINK_SERVER);
    (void)Log::ensureInstance();
    Log::getInstance().initLogFile("/tmp/usb-camera.log", 4096, 2);
    Log::getInstance().initLogServer(nullptr, 8001);

    ModuleManager* pModuleManager = &ModuleManager::getInstance();
    ASSERT_IN(FUNCTION, RET_SUCCESS == pModuleManager->initModule());
    ASSERT_IN(FUNCTION, RET_SUCCESS == pModuleManager->startModule());

    const RET_E eRet = pModuleManager->moduleInitialize();
    if (RET_SUCCESS != eRet) {
        return eRet;
    }

    ASSERT_IN(FUNCTION, RET_SUCCESS == pModuleManager->systemLoop(argv));

    (void)pModuleManager->moduleUnInitialize(); // going down in any case

    ASSERT_IN(FUNCTION, RET_SUCCESS == pModuleManager->stopModule());
    ASSERT_IN(FUNCTION, RET_SUCCESS == pModuleManager->uninitModule());
    return 0;
}
