// Lines per second of the print service, beside a bare send-and-wait loop on the same terminal.
//
// usage: printlink_bench FOLDER   prints a JSON list of figures; FOLDER gets the job file
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Log.h"
#include "PrintService.h"
#include "PtyPeer.h"
#include "Time.h"
#include "UART.h"

namespace {

const char JOB_LINE[] = "G1 X12.500 Y-3.250 F1500 S200\n";
const char WIRE_LINE[] = "G1 X12.500 Y-3.250 F1500 S200\n\n"; // as the service sends it

struct Case
{
    const char* pName;
    long nDelayUs;
    uint32_t u32Lines; // of a job: some 0.1 to 0.4 s
    int nPairs;        // of a job and a bare loop
    bool bTimeOut;     // the bare loop waits with a time-out
    const char* pGoal;
};

// A link has to notice a dead controller, so the floor of the goal waits with a time-out as well.
// What that costs shows beside a bare loop that would wait for ever.
const Case CASES[] = {
    {"job lines, answered at once", 0, 2000, 21, true, "0.9"},
    {"job lines, answered at once, beside reads without a time-out", 0, 2000, 21, false, "null"},
    {"job lines, answered after 2 ms", 2000, 100, 9, true, "0.9"},
    {"job lines, answered after 5 ms", 5000, 60, 9, true, "0.9"}};

/** Lines per second of a job and of the bare loop right behind it, in the same weather. */
struct Pair
{
    double dService;
    double dBare;

    double ratio() const
    {
        return dService / dBare;
    }
};

void writeJob(uint32_t u32Lines)
{
    FILE* const pFile = fopen("tmp.gcode", "we");
    for (uint32_t i = 0; i < u32Lines; ++i) {
        fputs(JOB_LINE, pFile);
    }
    fclose(pFile);
}

double linesPerSecond(const PtyPeer& peer)
{
    return (peer.lines() - 1) / peer.seconds();
}

/** One job by the service. @return lines per second */
double runService(PtyPeer& peer, uint32_t u32Lines)
{
    UART uart;
    if (1 != uart.open(peer.path()) || 1 != uart.setParam(115200, 8, 1, 0)) {
        return 0;
    }
    PrintService& service = PrintService::getInstance();
    service.setUart(&uart);
    writeJob(u32Lines);
    peer.reset();
    if (0 != service.startPrint()) {
        return 0;
    }
    while (peer.lines() < u32Lines + 1 || PRINT_STATE_STOPPED != service.getState()) {
        sleepFor(Time(0, 2000)); // one more: the end of the job is a line as well
    }
    sleepFor(Time(0, 20000)); // the thread takes the last reply and parks
    service.setUart(nullptr);
    uart.close();
    return linesPerSecond(peer);
}

/** Write, wait for the answer, and again. */
double runBare(PtyPeer& peer, uint32_t u32Lines, bool bTimeOut)
{
    const int nFd = open(peer.path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    peer.reset();
    char acReply[64];
    pollfd entry{nFd, POLLIN, 0};
    for (uint32_t i = 0; i < u32Lines + 1; ++i) {
        if (static_cast<ssize_t>(sizeof(WIRE_LINE) - 1) !=
                write(nFd, WIRE_LINE, sizeof(WIRE_LINE) - 1) ||
            (bTimeOut && 1 != poll(&entry, 1, 10000)) || read(nFd, acReply, sizeof(acReply)) <= 0) {
            break;
        }
    }
    close(nFd);
    return linesPerSecond(peer);
}

Pair measure(const Case& run)
{
    PtyPeer peer(run.nDelayUs);
    std::vector<Pair> vecPair;
    for (int i = 0; i < run.nPairs; ++i) {
        const double dService = runService(peer, run.u32Lines);
        vecPair.push_back({dService, runBare(peer, run.u32Lines, run.bTimeOut)});
    }
    // The median of the ratios: a busy moment slows both of a pair.
    std::sort(vecPair.begin(), vecPair.end(),
              [](const Pair& a, const Pair& b) { return a.ratio() < b.ratio(); });
    return vecPair[vecPair.size() / 2];
}

} // namespace

int main(int nArgs, char** ppArg)
{
    if (2 != nArgs || 0 != chdir(ppArg[1])) {
        fprintf(stderr, "usage: printlink_bench FOLDER\n");
        return 2;
    }
    // The service tells standard output about every line; as a daemon it has none.
    FILE* const pOut = fdopen(dup(STDOUT_FILENO), "w");
    if (nullptr == freopen("/dev/null", "w", stdout)) {
        return 1;
    }
    Log::getInstance().setLevel(5).setSinks(0); // as in service

    stayOnProcessor(0); // the print service's thread will, too
    fprintf(pOut, "[");
    const char* pSeparator = "\n";
    for (const Case& run : CASES) {
        const Pair pair = measure(run);
        fprintf(pOut,
                "%s{\"piece\": \"print link\", \"figure\": \"%s\", \"value\": %.1f, "
                "\"unit\": \"1/s\", \"floor\": %.1f, \"ratio\": %.4f, \"goal\": %s, "
                "\"better\": \"more\", \"bound\": \"one line per reply\"}",
                pSeparator, run.pName, pair.dService, pair.dBare, pair.ratio(), run.pGoal);
        pSeparator = ",\n";
    }
    fprintf(pOut, "\n]\n");
    return (0 == fclose(pOut)) ? 0 : 1;
}
