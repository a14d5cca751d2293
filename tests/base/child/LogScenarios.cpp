// Scenarios of the log: its console, its sinks, its viewers.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ListeningPort.h"
#include "Log.h"
#include "Scenarios.h"

static const char* const SOURCE_NAME = "LogScenarios";

/** A level: one line on the console. */
int runConsole(int, char** argv)
{
    Log::getInstance().setLayout(0);
    LOG(static_cast<uint32_t>(atoi(argv[2])), "text\n");
    return 0;
}

/** A line with the layout that the log has at first. */
int runLayout(int, char**)
{
    LOG(2, "text\n");
    return 0;
}

/** TERM is not set in the beginning. */
int runConsoleVerdict(int, char**)
{
    Log::getInstance().setLayout(0);
    LOG(2, "one\n");
    setenv("TERM", "linux", 1);
    LOG(2, "two\n");
    setenv("TERM", "vt100", 1);
    LOG(2, "three\n");
    return 0;
}

/** Sinks mask; a path; a port, 0 for any: what main does, then "listening" or "not listening". */
int runSinks(int argc, char** argv)
{
    if (5 != argc) {
        return 100;
    }
    signal(SIGPIPE, SIG_IGN); // as the service does
    const int nPort = atoi(argv[4]);
    Log::getInstance().setSinks(static_cast<uint32_t>(atoi(argv[2])));
    Log::getInstance().initLogFile(argv[3], 1, 2);
    Log::getInstance().initLogServer(nullptr, nPort);
    LOG(2, "a line\n");
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(listeningPort()); // 0 refuses
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int nRet = connect(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    printf("%s\n", (0 == nRet) ? "listening" : "not listening");
    close(nFd);
    return 0;
}

/** A port, 0 for any, which is printed: a log server that logs each line of standard input, until
 * its end. */
int runServer(int, char** argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN); // as the service does
    Log::getInstance().setLevel(5).setLayout(0).setSinks(LOG_SINK_SERVER);
    Log::getInstance().initLogServer("127.0.0.1", atoi(argv[2]));
    if (0 == atoi(argv[2])) {
        printf("port %d\n", listeningPort());
    }
    printf("ready\n");
    char acLine[256];
    while (nullptr != fgets(acLine, sizeof(acLine), stdin)) {
        LOG(2, "%s", acLine);
    }
    return 0;
}
