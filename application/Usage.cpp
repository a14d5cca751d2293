// What kestrel-server says about itself.
#include "Usage.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

static const char* const HELP =
    "usage: kestrel-server [-p [LENGTH]]\n"
    "       kestrel-server --help | --version\n"
    "\n"
    "The camera and laser-arm service. Runs in the foreground until a signal ends it.\n"
    "\n"
    "  -p [LENGTH]  have strace trace it, with strings of up to LENGTH bytes\n"
    "  --help       print this, as the only argument\n"
    "  --version    print the version, as the only argument\n"
    "\n"
    "Any other argument is ignored: the service starts.\n"
    "\n"
    "HTTP is on port 8329, the log on port 8001 and in /tmp/usb-camera.log.*; web application\n"
    "and snapshots lie below /tmp/run/mountd/mmcblk0p1/kestrel-server.\n";

void answerUsage(int argc, char** argv)
{
    if (2 != argc) {
        return;
    }
    if (0 == strcmp(argv[1], "--help")) {
        fputs(HELP, stdout);
        exit(0);
    }
    if (0 == strcmp(argv[1], "--version")) {
        puts("kestrel-server " KESTREL_VERSION);
        exit(0);
    }
}
