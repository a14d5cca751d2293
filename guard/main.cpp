// kestrel-guard: keeps the beam off in any fault, between the service and the motion controller.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fstream>
#include <string>

#include <sys/resource.h>

#include <CLI/CLI.hpp>

#include "Configuration.h"
#include "GuardParent.h"
#include "GuardPort.h"
#include "GuardWorker.h"

static const char* const CONFIGURATION = "/etc/kestrel-guard.toml";
static const char* const LAST_PORT = "/var/lib/kestrel-guard/port";

namespace {

std::string readLastPort(const std::string& strPath)
{
    std::ifstream file(strPath);
    std::string strPort;
    std::getline(file, strPort);
    return strPort;
}

/** @return whether the beam was told off; says so */
bool switchOff(const std::string& strPort)
{
    if (strPort.empty()) {
        fputs("kestrel-guard: no port is known, beam off not sent\n", stderr);
        return false;
    }
    const bool bSent = GuardPort::sendOff(strPort);
    fprintf(stderr, "kestrel-guard: beam off %s %s%s%s\n", bSent ? "sent to" : "not sent to",
            strPort.c_str(), bSent ? "" : ": ", bSent ? "" : strerror(errno));
    return bSent;
}

/** @return the program's status */
int check(const std::string& strConfiguration)
{
    Configuration configuration;
    std::string strError;
    const bool bRead = readConfiguration(strConfiguration, configuration, strError);
    fprintf(stderr, "kestrel-guard: %s\n",
            bRead ? (strConfiguration + " is complete").c_str() : strError.c_str());
    return bRead ? 0 : 2;
}

/** The worker's status. Without memory it ends in order, and its parent turns the beam off. */
int work(const Configuration& configuration, const std::string& strLast, int nBeatFd)
{
    try {
        return static_cast<int>(GuardWorker(configuration, strLast, nBeatFd).run());
    } catch (const std::exception& error) {
        fprintf(stderr, "kestrel-guard: %s\n", error.what());
        return static_cast<int>(WORKER_NOT_SEEN);
    }
}

int run(int argc, char** argv)
{
    CLI::App app(
        "Keeps the laser off in any fault, between the service and the motion controller.");
    std::string strConfiguration = CONFIGURATION;
    std::string strLast = LAST_PORT;
    std::string strPort;
    bool bOff = false;
    bool bCheck = false;
    app.set_version_flag("--version", std::string("kestrel-guard ") + KESTREL_VERSION);
    app.add_option("--config", strConfiguration, "configuration file")->capture_default_str();
    app.add_option("--last-port", strLast, "file that keeps the last port used")
        ->capture_default_str();
    app.add_flag("--off", bOff, "turn the beam off, and end");
    app.add_flag("--check", bCheck, "tell whether the configuration is complete, and end");
    app.add_option("PORT", strPort,
                   "the controller's port for --off, and while the configuration is not readable");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return (0 == app.exit(error)) ? 0 : 2;
    }
    if (bOff) {
        strPort = strPort.empty() ? readLastPort(strLast) : strPort;
        if (Configuration configuration; strPort.empty()) {
            std::string strIgnored;
            const bool bRead = readConfiguration(strConfiguration, configuration, strIgnored);
            strPort = bRead ? configuration.strPort : "";
        }
        return switchOff(strPort) ? 0 : 1;
    }
    if (bCheck) {
        return check(strConfiguration);
    }
    signal(SIGPIPE, SIG_IGN); // a reader of the journal that goes ends nothing
    // A busy machine must not delay beam off, nor make a beat come late. May be refused.
    (void)setpriority(PRIO_PROCESS, 0, -20);
    for (;;) {
        Configuration configuration;
        std::string strError;
        if (!readConfiguration(strConfiguration, configuration, strError)) {
            // Before anything is told: standard error may take nothing.
            (void)switchOff(strPort.empty() ? readLastPort(strLast) : strPort); // told either way
            fprintf(stderr, "kestrel-guard: %s\n", strError.c_str());
            return 2;
        }
        GuardParent parent(configuration.strPort, configuration.strResetLine);
        const int nStatus = parent.run([&configuration, &strLast](int nBeatFd) {
            return work(configuration, strLast, nBeatFd);
        });
        if (WORKER_ANEW != nStatus) {
            return nStatus;
        }
        if (0 != parent.getEndSignal()) {
            raise(parent.getEndSignal()); // blocked until the next worker is there to see it
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& error) { // no memory at the start: it is started again
        fprintf(stderr, "kestrel-guard: %s\n", error.what());
        return 1;
    }
}
