// kestrel-controller-ctl: gives one instruction to a running kestrel-controller and prints its
// answer.
#include "Ctl.h"

static const char* const USAGE =
    "usage: kestrel-controller-ctl SOCKET INSTRUCTION [ARGUMENT ...]\n";

int main(int nArgs, char** apArgs)
{
    return runCtl(USAGE, nArgs > 1 ? apArgs[1] : "", nArgs - 2, apArgs + 2);
}
