// kestrel-camera: the virtual camera that stands for a USB camera and its driver.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CameraCommands.h"
#include "CameraOptions.h"
#include "ControlServer.h"
#include "DeviceServer.h"
#include "FolderSource.h"
#include "Help.h"
#include "SceneSource.h"
#include "TimedScript.h"

namespace {

/** Keeps a second camera out of the directory for as long as it is open. */
int claim(const std::string& strDir)
{
    std::error_code error;
    std::filesystem::create_directories(strDir, error);
    const int nFd = ::open((strDir + "/lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (nFd < 0 || 0 != ::flock(nFd, LOCK_EX | LOCK_NB)) {
        fprintf(stderr, "%s: %s\n", strDir.c_str(),
                nFd >= 0 ? "another kestrel-camera serves here" : "cannot be used");
        return -1;
    }
    return nFd;
}

/** What an earlier camera left when it was killed. */
void sweep(const std::string& strDir)
{
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(strDir, error)) {
        const std::string strName = entry.path().filename().string();
        if (0 == strName.rfind("session-", 0) || 0 == strName.rfind("buffers-", 0)) {
            ::unlink(entry.path().c_str());
        }
    }
    std::filesystem::remove_all(strDir + "/frames", error);
    ::unlink((strDir + "/frames.log").c_str());
}

int signalDescriptor()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigprocmask(SIG_BLOCK, &set, nullptr); // threads started later inherit it
    return ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

void serve(DeviceServer& device, ControlServer& control, CameraCommands& commands,
           TimedScript& script, int nSignals)
{
    const auto start = std::chrono::steady_clock::now();
    while (!commands.hasQuit()) {
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        for (std::string strLine; !(strLine = script.takeDue(elapsed.count())).empty();) {
            const std::string strAnswer = commands.run(strLine);
            if ("ok" != strAnswer.substr(0, 2)) {
                fprintf(stderr, "script: %s: %s\n", strLine.c_str(), strAnswer.c_str());
            }
        }
        std::vector<pollfd> vecPoll{{nSignals, POLLIN, 0}};
        device.watch(vecPoll);
        control.watch(vecPoll);
        double dWait = 0.5; // a program that ended after an unplug is only found by looking
        if (script.getNext() >= 0) {
            dWait = std::min(dWait, std::max(script.getNext() - elapsed.count(), 0.0));
        }
        if (::poll(vecPoll.data(), vecPoll.size(), static_cast<int>(dWait * 1000) + 1) < 0 &&
            EINTR != errno) {
            perror("poll");
            return;
        }
        if (0 != vecPoll[0].revents) {
            return;
        }
        device.handle();
        control.handle();
    }
}

} // namespace

int main(int nCount, char** ppArgument)
{
    if (printHelp(nCount, ppArgument, CameraOptions::USAGE)) {
        return 0;
    }
    CameraOptions options;
    if (!options.parse(nCount, ppArgument)) {
        return 2;
    }
    ::umask(0); // the program under test may be another user
    const int nSignals = signalDescriptor();
    const int nLock = claim(options.strDir);
    if (nLock < 0 || nSignals < 0) {
        return 1;
    }
    sweep(options.strDir);

    SceneFile scene(options.strScene);
    if (!scene.isMapped()) {
        perror(options.strScene.c_str());
        return 1;
    }
    std::unique_ptr<IPictureSource> pSource;
    if (options.strPictures.empty()) {
        pSource = std::make_unique<SceneSource>(scene, options.dK1, options.nQuality);
    } else {
        auto pFolder = std::make_unique<FolderSource>();
        if (0 == pFolder->load(options.strPictures)) {
            fprintf(stderr, "%s: no JPEG pictures\n", options.strPictures.c_str());
            return 1;
        }
        pSource = std::move(pFolder);
    }
    TimedScript script;
    std::string strError;
    if (!options.strScript.empty() && !script.load(options.strScript, nullptr, strError)) {
        fprintf(stderr, "%s\n", strError.c_str());
        return 1;
    }

    CameraJournal journal(options.strDir + "/journal");
    FrameLog frameLog(options.strDir, options.u32Keep);
    KernelFiles kernelFiles(options.strDir);
    UvcCamera camera(options.strDir, journal, frameLog);
    camera.onPlug(
        [](void* pContext, bool bPlugged, uint32_t u32Node) {
            static_cast<KernelFiles*>(pContext)->setPlugged(bPlugged, u32Node);
        },
        &kernelFiles);
    camera.setRate(options.u32Rate);
    if (options.bUnplugged) {
        camera.unplug();
    }
    CameraCommands commands(camera, kernelFiles, scene, journal);
    DeviceServer device(camera, options.strDir);
    ControlServer control(
        [&commands](const std::string& strLine) { return commands.run(strLine); });
    if (!device.start() || !control.start(options.strDir + "/control.sock")) {
        perror(options.strDir.c_str());
        return 1;
    }

    std::thread drawer([&camera, &pSource] {
        PictureRequest request;
        Picture picture;
        while (camera.waitForFrame(request)) {
            pSource->draw(request, picture);
            camera.putFrame(request, picture);
        }
    });
    printf("ready %s\n", options.strDir.c_str());
    fflush(stdout);
    serve(device, control, commands, script, nSignals);
    camera.quit();
    drawer.join();
    return 0;
}
