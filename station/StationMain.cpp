// kestrel-station: the program of the person at the machine, camera service and operator's
// interface.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include <unistd.h>

#include <CLI/CLI.hpp>

#include "ApiServer.h"
#include "JobApi.h"
#include "Log.h"
#include "ModuleManager.h"
#include "Station.h"
#include "StationApi.h"
#include "StationConfiguration.h"
#include "VideoProcessor.h"

static const unsigned END_SECONDS = 10; // for an orderly end; a measurement may wait for a camera

namespace {

int fail(const std::string& strError)
{
    fprintf(stderr, "kestrel-station: %s\n", strError.c_str());
    return 2;
}

/** @return the program's status */
int run(const StationConfiguration& configuration, const std::string& strToken,
        const sigset_t& ends)
{
    ModuleManager& modules = ModuleManager::getInstance();
    Station station(configuration); // before anything listens
    ApiServer server(RequestRules(strToken, configuration.vecHost, configuration.vecOrigin));
    const StationApi api(server, station);
    const JobApi jobs(server.getRouter(), station);
    for (const std::string& strAddress : configuration.vecAddress) {
        std::string strError;
        if (!server.listen(strAddress, configuration.nPort, strError)) {
            return fail(strError);
        }
    }
    if (RET_SUCCESS != modules.moduleInitialize()) {
        return fail("the camera service does not start; is another one running?");
    }
    VideoProcessor& vision = VideoProcessor::getInstance();
    (void)vision.init(); // without a plug-in nothing is measured
    (void)vision.start();
    station.start();
    server.start();
    puts("ready");

    int nSignal = 0;
    (void)sigwait(&ends, &nSignal); // fails for no set of ours
    (void)alarm(END_SECONDS);
    (void)sigprocmask(SIG_UNBLOCK, &ends, nullptr);
    station.stop();
    server.stop();
    (void)vision.stop();
    (void)modules.moduleUnInitialize(); // going down in any case
    return 0;
}

} // namespace

// Without memory at its start it ends.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv)
{
    CLI::App app("Camera service, and the operator's interface of the laser arm.",
                 "kestrel-station");
    app.get_formatter()->label("Usage", "usage");
    std::string strFile = "/etc/kestrel-station.toml";
    bool bCheck = false;
    bool bStarts = false;
    app.set_version_flag("--version", std::string("kestrel-station ") + KESTREL_VERSION);
    app.add_option("--config", strFile, "configuration file")->capture_default_str();
    app.add_flag("--check", bCheck, "tell whether the configuration is complete, and end");
    app.add_flag("--starts", bStarts,
                 "tell by the status whether it starts in place of kestrel-server, and end");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return (0 == app.exit(error)) ? 0 : 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0); // printed lines reach the reader of a pipe
    StationConfiguration configuration;
    std::string strToken;
    std::string strError;
    if (!readStationConfiguration(strFile, configuration, strError)) {
        return fail(strError);
    }
    if (bStarts) {
        return configuration.bStarts ? 0 : 1;
    }
    if (!readToken(configuration.strTokenFile, strToken, strError)) {
        return fail(strError);
    }
    if (bCheck) {
        puts((strFile + " is complete").c_str());
        return 0;
    }
    if (0 != chdir(configuration.strFolder.c_str())) {
        return fail(configuration.strFolder + ": " + strerror(errno));
    }
    signal(SIGPIPE, SIG_IGN);
    sigset_t ends;
    (void)sigemptyset(&ends);
    (void)sigaddset(&ends, SIGTERM);
    (void)sigaddset(&ends, SIGINT);
    (void)sigprocmask(SIG_BLOCK, &ends, nullptr); // of all threads; one waits for them

    Log::getInstance().setLevel(5).setLayout(71).setSinks(LOG_SINK_FILE | LOG_SINK_SERVER);
    (void)Log::ensureInstance();
    Log::getInstance().initLogFile("/tmp/usb-camera.log", 4096, 2);
    Log::getInstance().initLogServer(nullptr, 8001);
    return run(configuration, strToken, ends);
}
