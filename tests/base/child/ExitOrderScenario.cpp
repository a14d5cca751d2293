// Process exits whose singletons were first used in a given order.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "EventBus.h"
#include "Eventually.h"
#include "ListeningPort.h"
#include "Log.h"
#include "LogEvent.h"
#include "LogFile.h"
#include "LogServer.h"
#include "SafePointer.h"
#include "Scenarios.h"
#include "SystemNeedQuitEvent.h"
#include "TerminationSignals.h"
#include "Thread.h"
#include "Time.h"

static const char* const SOURCE_NAME = "ExitOrder";

namespace {

/** A singleton as a module is: a thread that logs, subscriptions, log lines until its end. */
class Module
{
public:
    static Module& getInstance()
    {
        static Module s_instance;
        return s_instance;
    }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    int onQuit(Event*)
    {
        LOG(2, "quit\n");
        return 0;
    }

    int run()
    {
        LOG(2, "module runs\n");
        sleepFor(Time(0, 1000));
        return 0;
    }

    std::atomic<int> m_nLines{0};

private:
    Module() : m_thread(&Module::run, this, "module", 0, 0, 0, true)
    {
        EventBus<SystemNeedQuitEvent>::subscribe(this, &Module::onQuit);
        (void)m_thread.start();
    }
    ~Module()
    {
        EventBus<SystemNeedQuitEvent>::unsubscribe(this, &Module::onQuit);
        LOG(2, "module goes\n");
    }

    Thread m_thread;
};

/** Made before the log, so that it ends after it; its end is a line that no log is left for. */
class Latecomer
{
public:
    Latecomer()
    {
        (void)EventBus<LogEvent>::getInstance(); // outlives it
    }
    Latecomer(const Latecomer&) = delete;
    Latecomer& operator=(const Latecomer&) = delete;
    ~Latecomer()
    {
        LogEvent event(SafePointer_C<char>(strdup("too late\n")), 9, 2);
        EventBus<LogEvent>::publish(event);
    }
};

/** Connects a viewer that stays until the process is gone. */
void connectViewer()
{
    const int nFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(listeningPort());
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (0 != connect(nFd, reinterpret_cast<sockaddr*>(&address), sizeof(address))) {
        printf("no viewer\n");
        return;
    }
    char cFirst = 0;
    (void)eventually([&] {
        LOG(2, "for the viewer\n");
        return 1 == recv(nFd, &cFirst, 1, MSG_DONTWAIT);
    });
}

void use(char cWhat, const char* pPath)
{
    switch (cWhat) {
    case 'l': // log
        LOG(2, "line\n");
        break;
    case 'b': { // bus of the log lines
        (void)EventBus<LogEvent>::getInstance();
        break;
    }
    case 'q': { // quit bus
        SystemNeedQuitEvent event;
        EventBus<SystemNeedQuitEvent>::publish(event);
        break;
    }
    case 'f': // log file alone, without the log
        (void)LogFile::getInstance().init(pPath, 1, 2);
        break;
    case 'F': // log file by the log
        Log::getInstance().setSinks(LOG_SINK_FILE | LOG_SINK_SERVER).initLogFile(pPath, 1, 2);
        break;
    case 'n': // no sinks from now on; the log file stays open
        Log::getInstance().setSinks(0);
        break;
    case 's': // log server object, never set up
        (void)LogServer::getInstance();
        break;
    case 'S': // log server by the log
        Log::getInstance().setSinks(LOG_SINK_FILE | LOG_SINK_SERVER).initLogServer("127.0.0.1", 0);
        break;
    case 'v': // a viewer that is still there at the end
        connectViewer();
        break;
    case 'x': { // a line after the log's end
        static Latecomer s_latecomer;
        break;
    }
    case 'm': // module with a thread
        (void)Module::getInstance();
        break;
    case 'g': // fatal-signal report
        TerminationSignals::getInstance().install(false, nullptr, Time(), 3);
        break;
    default:
        printf("what is %c\n", cWhat);
        exit(100);
    }
}

} // namespace

/** Letters of what is used, in order (see use()); a path for log files. */
int runExitOrder(int argc, char** argv)
{
    if (4 != argc) {
        return 100;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    signal(SIGPIPE, SIG_IGN); // as the service does
    for (const char* p = argv[2]; '\0' != *p; ++p) {
        use(*p, argv[3]);
    }
    return 0;
}
