// kestrel-controller-ctl: send one command to a running kestrel-controller and print its answer.
#include "Ctl.h"
#include "Help.h"

static const char* const USAGE = "usage: kestrel-controller-ctl SOCKET COMMAND [ARGUMENT ...]\n";

int main(int nArgs, char** apArgs)
{
    if (printHelp(nArgs, apArgs, USAGE)) {
        return 0;
    }
    return runCtl(USAGE, nArgs > 1 ? apArgs[1] : "", nArgs - 2, apArgs + 2);
}
