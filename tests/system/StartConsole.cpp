// Linked to main.cpp with --wrap=main: the service's program with its debug console running.
#include "ModuleManager.h"

extern "C" {
int __real_main(int argc, char** argv);
int __wrap_main(int argc, char** argv);
}

// Not while the program is initialised: the order between that and the log's constants is open.
int __wrap_main(int argc, char** argv)
{
    ModuleManager::getInstance().getDebugThread().start();
    return __real_main(argc, argv);
}
