// A program of its own for what a test can't do to itself: termination signals, exits, lost
// privileges.
#include <cstdio>
#include <cstring>

#include "Scenarios.h"

int main(int argc, char** argv)
{
    static const struct
    {
        const char* pName;
        int (*pRun)(int, char**);
    } SCENARIOS[] = {
        {"unlock", &runUnlock},
        {"stamp", &runStamp},
        {"nice-refused", &runNiceRefused},
        {"exit-order", &runExitOrder},
        {"termination", &runTermination},
        {"termination-address", &runTerminationAddress},
        {"termination-again", &runTerminationAgain},
        {"termination-end", &runTerminationEnd},
        {"termination-errno", &runTerminationErrno},
        {"termination-late", &runTerminationLate},
        {"termination-restart-fails", &runTerminationRestartFails},
        {"termination-locked", &runTerminationLocked},
        {"termination-restart", &runTerminationRestart},
        {"stack", &runStack},
        {"daemonise", &runDaemonise},
        {"restart", &runRestart},
        {"restart-fails", &runRestartFails},
        {"sinks", &runSinks},
        {"console", &runConsole},
        {"console-verdict", &runConsoleVerdict},
        {"layout", &runLayout},
        {"server", &runServer},
    };
    for (const auto& scenario : SCENARIOS) {
        if (argc >= 2 && 0 == strcmp(argv[1], scenario.pName)) {
            return scenario.pRun(argc, argv);
        }
    }
    fprintf(stderr, "no such scenario\n");
    return 100;
}
