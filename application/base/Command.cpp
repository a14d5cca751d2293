// Running shell commands.
#include "Command.h"

#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>

bool runCommand(const char* pCommand)
{
    const int nStatus = system(pCommand);
    return -1 != nStatus && WIFEXITED(nStatus) && 0 == WEXITSTATUS(nStatus);
}
