// kestrel-controller: a motion controller on a pseudo terminal, for tests and demonstrations.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <getopt.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "ControllerBoard.h"

static const char* const USAGE =
    "usage: kestrel-controller --node PATH [option...]\n"
    "  --node PATH        where the serial port appears, e.g. /dev/ttyACM0\n"
    "  --unplugged        start without the port; \"plug\" brings it\n"
    "  --gpio DIR         make the pin files below DIR; gpio106 low resets the controller\n"
    "  --boot-ms N        from the end of a reset until the port is back (300)\n"
    "  --control PATH     listen for instructions on a Unix socket\n"
    "  --script FILE      carry out instructions at their times\n"
    "  --wire-log FILE    record every line and every answer with its time\n"
    "  --scene FILE       drive the laser spot of the shared scene\n"
    "  --focus-z N        height in millimetres at which the spot is sharp (0)\n"
    "  --image FILE       keep a received firmware image\n"
    "  --image-quiet-ms N silence that ends an image of unknown length (1000)\n"
    "  --speed-up FACTOR  move that many times faster than the feed rate says (1)\n"
    "  --settle-ms N      least time between a move's two answers (100)\n"
    "  --position X,Y,Z   where the head stands at power-up, in millimetres (0,0,0)\n";

namespace {

enum OPTION_E
{
    OPTION_NODE = 1,
    OPTION_UNPLUGGED,
    OPTION_GPIO,
    OPTION_BOOT,
    OPTION_CONTROL,
    OPTION_SCRIPT,
    OPTION_WIRE_LOG,
    OPTION_SCENE,
    OPTION_FOCUS_Z,
    OPTION_IMAGE,
    OPTION_IMAGE_QUIET,
    OPTION_SPEED_UP,
    OPTION_SETTLE,
    OPTION_POSITION
};

const option OPTIONS[] = {{"node", required_argument, nullptr, OPTION_NODE},
                          {"unplugged", no_argument, nullptr, OPTION_UNPLUGGED},
                          {"gpio", required_argument, nullptr, OPTION_GPIO},
                          {"boot-ms", required_argument, nullptr, OPTION_BOOT},
                          {"control", required_argument, nullptr, OPTION_CONTROL},
                          {"script", required_argument, nullptr, OPTION_SCRIPT},
                          {"wire-log", required_argument, nullptr, OPTION_WIRE_LOG},
                          {"scene", required_argument, nullptr, OPTION_SCENE},
                          {"focus-z", required_argument, nullptr, OPTION_FOCUS_Z},
                          {"image", required_argument, nullptr, OPTION_IMAGE},
                          {"image-quiet-ms", required_argument, nullptr, OPTION_IMAGE_QUIET},
                          {"speed-up", required_argument, nullptr, OPTION_SPEED_UP},
                          {"settle-ms", required_argument, nullptr, OPTION_SETTLE},
                          {"position", required_argument, nullptr, OPTION_POSITION},
                          {nullptr, 0, nullptr, 0}};

bool parseMs(const char* pText, int64_t& s64Us)
{
    int nMs = 0;
    const bool bGood = parseCount(pText, nMs);
    s64Us = static_cast<int64_t>(nMs) * 1000;
    return bGood;
}

bool parsePosition(const char* pText, Point& position)
{
    char cRest = 0;
    return 3 == sscanf(pText, "%lf,%lf,%lf%c", &position[0], &position[1], &position[2], &cRest);
}

bool applyOption(int nOption, const char* pValue, ControllerBoardOptions& options)
{
    switch (nOption) {
    case OPTION_NODE:
        options.strNode = pValue;
        return true;
    case OPTION_UNPLUGGED:
        options.bPlugged = false;
        return true;
    case OPTION_GPIO:
        options.strGpio = pValue;
        return true;
    case OPTION_BOOT:
        return parseMs(pValue, options.s64BootUs);
    case OPTION_CONTROL:
        options.strControl = pValue;
        return true;
    case OPTION_SCRIPT:
        options.strScript = pValue;
        return true;
    case OPTION_WIRE_LOG:
        options.strWireLog = pValue;
        return true;
    case OPTION_SCENE:
        options.strScene = pValue;
        return true;
    case OPTION_FOCUS_Z:
        options.dFocusZ = strtod(pValue, nullptr);
        return true;
    case OPTION_IMAGE:
        options.controller.strImagePath = pValue;
        return true;
    case OPTION_IMAGE_QUIET:
        return parseMs(pValue, options.controller.s64ImageQuietUs);
    case OPTION_SPEED_UP:
        options.controller.dSpeedUp = strtod(pValue, nullptr);
        return options.controller.dSpeedUp > 0;
    case OPTION_SETTLE:
        return parseMs(pValue, options.controller.s64SettleUs);
    case OPTION_POSITION:
        return parsePosition(pValue, options.controller.powerUpPosition);
    default:
        return false;
    }
}

} // namespace

int main(int nArgs, char** apArgs)
{
    ControllerBoardOptions options;
    for (int nOption = getopt_long(nArgs, apArgs, "", OPTIONS, nullptr); - 1 != nOption;
         nOption = getopt_long(nArgs, apArgs, "", OPTIONS, nullptr)) {
        if (!applyOption(nOption, optarg, options)) {
            fputs(USAGE, stderr);
            return 2;
        }
    }
    if (options.strNode.empty() || optind != nArgs) {
        fputs(USAGE, stderr);
        return 2;
    }

    signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    const int nStopFd = signalfd(-1, &set, SFD_CLOEXEC);

    ControllerBoard board(options);
    std::string strError;
    if (nStopFd < 0 || !board.init(strError)) {
        fprintf(stderr, "kestrel-controller: %s\n", strError.c_str());
        return 1;
    }
    puts("ready");
    fflush(stdout);
    board.run(nStopFd);
    return 0;
}
