// kestrel-transcript: hold the dialogues of a text with the motion controller at a serial port.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "Help.h"
#include "Transcript.h"
#include "UART.h"

static const char* const USAGE =
    "usage: kestrel-transcript PORT FILE [DIALOGUE]\n"
    "Plays dialogues with the motion controller at a serial port. This moves the arm.\n";
static const int32_t ANSWER_SECONDS = 20; // as long as the service waits for the end of a move

int main(int nArgs, char** apArgs)
{
    if (printHelp(nArgs, apArgs, USAGE)) {
        return 0;
    }
    if (nArgs < 3) {
        fputs(USAGE, stderr);
        return 2;
    }
    std::ifstream file(apArgs[2]);
    if (!file) {
        perror(apArgs[2]);
        return 2;
    }
    UART uart;
    if (1 != uart.open(apArgs[1]) || 1 != uart.setParam(115200, 8, 1, 0)) {
        perror(apArgs[1]);
        return 2;
    }
    const std::string strText{std::istreambuf_iterator<char>(file), {}};
    int nPlayed = 0;
    int nFailed = 0;
    for (const Transcript& transcript : Transcript::parse(strText)) {
        if (nArgs > 3 && transcript.getName() != apArgs[3]) {
            continue;
        }
        std::string strTrouble;
        const bool bHeld = transcript.play(uart, ANSWER_SECONDS, strTrouble);
        printf("%s: %s\n", transcript.getName().c_str(), bHeld ? "as written" : "differs");
        if (!bHeld) {
            printf("%s\n", strTrouble.c_str());
            (void)uart.flushIn(); // what the failed dialogue left behind
        }
        ++nPlayed;
        nFailed += bHeld ? 0 : 1;
    }
    uart.close();
    printf("%d dialogues, %d differ\n", nPlayed, nFailed);
    return (nPlayed > 0 && 0 == nFailed) ? 0 : 1;
}
