// kestrel-controller: a motion controller on a pseudo terminal, for tests and demonstrations.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <getopt.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "ControllerBoard.h"
#include "Help.h"

static const char* const USAGE =
    "usage: kestrel-controller --node PATH [option...]\n"
    "  --node PATH        where the serial port appears, e.g. /dev/ttyACM0\n"
    "  --unplugged        start without the port; \"plug\" brings it\n"
    "  --gpio DIR         make the pin files below DIR; gpio106 low resets the controller\n"
    "  --boot-ms N        from the end of a reset until the port is back (300)\n"
    "  --control PATH     listen for commands on a Unix socket\n"
    "  --script FILE      carry out commands at their times\n"
    "  --journal FILE    record every line and every answer with its time\n"
    "  --scene FILE       drive the laser spot of the shared scene\n"
    "  --focus-z N        height in millimetres at which the spot is sharp (0)\n"
    "  --image FILE       keep a received firmware image\n"
    "  --image-quiet-ms N silence that ends an image of unknown length (1000)\n"
    "  --speed-up FACTOR  move that many times faster than the feed rate says (1)\n"
    "  --settle-ms N      least time between a move's two answers (100)\n"
    "  --answer-ms N      what each line takes the controller to answer (0)\n"
    "  --position X,Y,Z   where the head stands at power-up, in millimetres (0,0,0)\n"
    "  --language NAME    \"arm\", the arm's own (the default), or \"grbl\", Grbl 1.1\n"
    "  --setting N=VALUE  with grbl: \"$N=VALUE\" before power-up\n"
    "habits in which controllers differ:\n"
    "  --answer-empty-lines   a second line end behind a line is answered, too\n"
    "  --alarm-keeps-laser    an alarm does not switch the laser off\n"
    "  --hold-keeps-laser     a hold does not\n"
    "  --reset-laser-on       the reset line switches the laser on\n"
    "  --power-up-laser-on    it is on at power-up\n"
    "  --pilot-off            the pilot spot is off at power-up and after the reset line\n"
    "  --reset-on-open        opening the port resets the controller (DTR), which is deaf while it\n"
    "                         boots\n"
    "  --boot-greeting        it greets when it has booted; in grbl it always does\n"
    "  --status-ms N          a moving arm tells \"status:5\" unasked that often; not in grbl\n"
    "  --idle-off-ms N        the laser goes off when the arm has stood still and heard nothing for so\n"
    "                         long; not in grbl\n";

namespace {

enum OPTION_E
{
    OPTION_NODE = 1,
    OPTION_UNPLUGGED,
    OPTION_GPIO,
    OPTION_BOOT,
    OPTION_CONTROL,
    OPTION_SCRIPT,
    OPTION_JOURNAL,
    OPTION_SCENE,
    OPTION_FOCUS_Z,
    OPTION_IMAGE,
    OPTION_IMAGE_QUIET,
    OPTION_SPEED_UP,
    OPTION_SETTLE,
    OPTION_ANSWER,
    OPTION_POSITION,
    OPTION_LANGUAGE,
    OPTION_SETTING,
    OPTION_ANSWER_EMPTY_LINES,
    OPTION_ALARM_KEEPS_LASER,
    OPTION_HOLD_KEEPS_LASER,
    OPTION_RESET_LASER_ON,
    OPTION_POWER_UP_LASER_ON,
    OPTION_PILOT_OFF,
    OPTION_RESET_ON_OPEN,
    OPTION_BOOT_GREETING,
    OPTION_STATUS,
    OPTION_IDLE_OFF
};

const option OPTIONS[] = {{"node", required_argument, nullptr, OPTION_NODE},
                          {"unplugged", no_argument, nullptr, OPTION_UNPLUGGED},
                          {"gpio", required_argument, nullptr, OPTION_GPIO},
                          {"boot-ms", required_argument, nullptr, OPTION_BOOT},
                          {"control", required_argument, nullptr, OPTION_CONTROL},
                          {"script", required_argument, nullptr, OPTION_SCRIPT},
                          {"journal", required_argument, nullptr, OPTION_JOURNAL},
                          {"scene", required_argument, nullptr, OPTION_SCENE},
                          {"focus-z", required_argument, nullptr, OPTION_FOCUS_Z},
                          {"image", required_argument, nullptr, OPTION_IMAGE},
                          {"image-quiet-ms", required_argument, nullptr, OPTION_IMAGE_QUIET},
                          {"speed-up", required_argument, nullptr, OPTION_SPEED_UP},
                          {"settle-ms", required_argument, nullptr, OPTION_SETTLE},
                          {"answer-ms", required_argument, nullptr, OPTION_ANSWER},
                          {"position", required_argument, nullptr, OPTION_POSITION},
                          {"language", required_argument, nullptr, OPTION_LANGUAGE},
                          {"setting", required_argument, nullptr, OPTION_SETTING},
                          {"answer-empty-lines", no_argument, nullptr, OPTION_ANSWER_EMPTY_LINES},
                          {"alarm-keeps-laser", no_argument, nullptr, OPTION_ALARM_KEEPS_LASER},
                          {"hold-keeps-laser", no_argument, nullptr, OPTION_HOLD_KEEPS_LASER},
                          {"reset-laser-on", no_argument, nullptr, OPTION_RESET_LASER_ON},
                          {"power-up-laser-on", no_argument, nullptr, OPTION_POWER_UP_LASER_ON},
                          {"pilot-off", no_argument, nullptr, OPTION_PILOT_OFF},
                          {"reset-on-open", no_argument, nullptr, OPTION_RESET_ON_OPEN},
                          {"boot-greeting", no_argument, nullptr, OPTION_BOOT_GREETING},
                          {"status-ms", required_argument, nullptr, OPTION_STATUS},
                          {"idle-off-ms", required_argument, nullptr, OPTION_IDLE_OFF},
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

bool parseSetting(const char* pText, std::vector<std::pair<int, double>>& vecSetting)
{
    int nNumber = 0;
    double dValue = 0;
    char cRest = 0;
    if (2 != sscanf(pText, "%d=%lf%c", &nNumber, &dValue, &cRest)) {
        return false;
    }
    vecSetting.emplace_back(nNumber, dValue);
    return true;
}

/** The habit that an option switches on; null for any other option. */
bool* habitOf(int nOption, ControllerSettings& settings)
{
    switch (nOption) {
    case OPTION_ANSWER_EMPTY_LINES:
        return &settings.bAnswerEmptyLines;
    case OPTION_ALARM_KEEPS_LASER:
        return &settings.bAlarmKeepsLaser;
    case OPTION_HOLD_KEEPS_LASER:
        return &settings.bHoldKeepsLaser;
    case OPTION_RESET_LASER_ON:
        return &settings.bResetLaserOn;
    case OPTION_POWER_UP_LASER_ON:
        return &settings.bPowerUpLaserOn;
    case OPTION_PILOT_OFF:
        return &settings.bPilotOff;
    case OPTION_BOOT_GREETING:
        return &settings.bBootGreeting;
    default:
        return nullptr;
    }
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
    case OPTION_JOURNAL:
        options.strJournal = pValue;
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
    case OPTION_ANSWER:
        return parseMs(pValue, options.controller.s64AnswerUs);
    case OPTION_LANGUAGE:
        options.bGrbl = 0 == strcmp("grbl", pValue);
        return options.bGrbl || 0 == strcmp("arm", pValue);
    case OPTION_SETTING:
        return parseSetting(pValue, options.vecSetting);
    case OPTION_RESET_ON_OPEN:
        options.bResetOnOpen = true;
        return true;
    case OPTION_STATUS:
        return parseMs(pValue, options.controller.s64StatusUs);
    case OPTION_IDLE_OFF:
        return parseMs(pValue, options.controller.s64IdleOffUs);
    case OPTION_POSITION:
        return parsePosition(pValue, options.controller.powerUpPosition);
    default: {
        bool* const pHabit = habitOf(nOption, options.controller);
        if (nullptr != pHabit) {
            *pHabit = true;
        }
        return nullptr != pHabit;
    }
    }
}

} // namespace

int main(int nArgs, char** apArgs)
{
    if (printHelp(nArgs, apArgs, USAGE)) {
        return 0;
    }
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
