// For scripts/board-memory: plays operator and service of a running guard that speaks Grbl. Homes,
// then runs one job after the other until it is killed. Says "lines N" after every 50 lines that
// were acknowledged; ends with 1 when one is not.
//
// usage: kestrel-guard-load SOCKET TERMINAL
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Eventually.h"
#include "OperatorClient.h"

static const int LINES = 10000;
static const char* const DONE = "{\"ok\":true}";

namespace {

bool waitForState(OperatorClient& client, const std::string& strField)
{
    return eventually(
        [&] { return std::string::npos != client.ask("{\"do\":\"state\"}").find(strField); });
}

/** Until it is granted: what was under way may not have ended. */
bool doRequest(OperatorClient& client, const char* pWhat)
{
    const std::string strLine = std::string("{\"do\":\"") + pWhat + "\"}";
    return eventually([&] { return DONE == client.ask(strLine); });
}

std::string lineOf(int nLine)
{
    if (0 == nLine) {
        return "M3 S500";
    }
    return (LINES == nLine) ? "M5" : "G1 X-" + std::to_string(10 + nLine % 2) + " Y-5 F6000";
}

/** @return a descriptor of the job's file, which has no name any more */
int makeJob()
{
    std::string strPath = "/tmp/job-XXXXXX";
    const int nFd = mkstemp(strPath.data());
    unlink(strPath.c_str());
    std::string strJob;
    for (int n = 0; n <= LINES; ++n) {
        strJob += lineOf(n) + "\n";
    }
    (void)!write(nFd, strJob.data(), strJob.size()); // a short one is not acknowledged whole
    return nFd;
}

/** One line, as the service sends it; "wait" asks for it again. */
bool sendLine(int nTerminal, const std::string& strLine)
{
    for (;;) {
        const std::string strBytes = strLine + "\n\n";
        char acAnswer[64] = "";
        pollfd entry{nTerminal, POLLIN, 0};
        if (write(nTerminal, strBytes.data(), strBytes.size()) < 0 || 1 != poll(&entry, 1, 20000) ||
            read(nTerminal, acAnswer, sizeof(acAnswer) - 1) <= 0) {
            return false;
        }
        if (std::string("ok\n") == acAnswer) {
            return true;
        }
        if (std::string("wait\n") != acAnswer) {
            fprintf(stderr, "%s: %s", strLine.c_str(), acAnswer);
            return false;
        }
        poll(nullptr, 0, 500);
    }
}

bool runJob(OperatorClient& client, int nTerminal, int nJob)
{
    static int s_nLines = 0;
    std::string strAnswer;
    (void)eventually([&] { // the homing's last answer may still be due
        strAnswer = client.ask("{\"do\":\"job\",\"lease\":10000}", nJob);
        return std::string::npos == strAnswer.find("under way");
    });
    if (std::string::npos == strAnswer.find("\"ok\":true")) {
        fprintf(stderr, "%s\n", strAnswer.c_str());
        return false;
    }
    for (int n = 0; n <= LINES; ++n) {
        if (!sendLine(nTerminal, lineOf(n))) {
            return false;
        }
        if (0 == ++s_nLines % 50) {
            printf("lines %d\n", s_nLines);
            if (DONE != client.ask("{\"do\":\"lease\"}")) {
                return false;
            }
        }
    }
    return waitForState(client, "\"level\":\"dark\"");
}

} // namespace

int main(int argc, char** argv)
{
    if (3 != argc) {
        return 2;
    }
    setlinebuf(stdout);
    OperatorClient client(argv[1]);
    int nTerminal = -1;
    if (!eventually([&] {
            nTerminal = open(argv[2], O_RDWR | O_NOCTTY | O_CLOEXEC);
            return nTerminal >= 0;
        }) ||
        !waitForState(client, "\"beam_seen_off\":true") || !doRequest(client, "motion") ||
        !doRequest(client, "home") || !waitForState(client, "\"homed\":true")) {
        return 1;
    }
    const int nJob = makeJob();
    while (runJob(client, nTerminal, nJob) && doRequest(client, "motion")) {
    }
    return 1;
}
