// kestrel-board-ns: run a command with the virtual board's private /dev and /sys/class.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <unistd.h>

#include "BoardNamespace.h"
#include "Help.h"

static const char* const USAGE =
    "usage: kestrel-board-ns COMMAND [ARGUMENT...]\n"
    "Runs the command with a private /dev and /sys/class for the virtual board.\n";

int main(int nArgs, char** apArgs)
{
    if (printHelp(nArgs, apArgs, USAGE)) {
        return 0;
    }
    if (nArgs < 2) {
        fputs(USAGE, stderr);
        return 2;
    }
    std::string strError;
    if (!enterBoardNamespace(strError)) {
        fprintf(stderr, "%s\n", strError.c_str());
        return 125; // as env(1) and chroot(1) do when they fail themselves
    }
    execvp(apArgs[1], apArgs + 1);
    fprintf(stderr, "%s: %s\n", apArgs[1], strerror(errno));
    return 127;
}
