// kestrel-camera-ctl: gives one command to a running kestrel-camera and prints its answer.
#include <cstdlib>
#include <cstring>
#include <string>

#include "Ctl.h"
#include "Help.h"

static const char* const USAGE = "usage: kestrel-camera-ctl [--dir DIR] COMMAND [ARGUMENT ...]\n"
                                 "DIR is kestrel-camera's; by default KESTREL_CAMERA_DIR or "
                                 "/tmp/kestrel-camera.\n";

int main(int nArgs, char** apArgs)
{
    if (printHelp(nArgs, apArgs, USAGE)) {
        return 0;
    }
    const char* pDir = getenv("KESTREL_CAMERA_DIR");
    std::string strDir = nullptr != pDir && '\0' != *pDir ? pDir : "/tmp/kestrel-camera";
    int nFirst = 1;
    if (nArgs > 2 && 0 == strcmp("--dir", apArgs[1])) {
        strDir = apArgs[2];
        nFirst = 3;
    }
    return runCtl(USAGE, strDir + "/control.sock", nArgs - nFirst, apArgs + nFirst);
}
