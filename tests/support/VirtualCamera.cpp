// The virtual camera, as a test handles it.
#include "VirtualCamera.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace {

const char* const DIR_VARIABLE = "KESTREL_CAMERA_DIR";

/** Read up to the line end; what comes before the end of the stream without one. */
std::string readLine(int nFd)
{
    std::string strLine;
    char c = 0;
    while (1 == read(nFd, &c, 1) && '\n' != c) {
        strLine += c;
    }
    return strLine;
}

/** Become the program; it ends with this process, even when a test aborts. */
[[noreturn]] void become(const std::vector<std::string>& vecArgument, int nOutput)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(nOutput, STDOUT_FILENO);
    std::vector<char*> vecPointer;
    for (const std::string& strArgument : vecArgument) {
        vecPointer.push_back(const_cast<char*>(strArgument.c_str()));
    }
    vecPointer.push_back(nullptr);
    execv(vecPointer[0], vecPointer.data());
    _exit(127);
}

} // namespace

VirtualCamera::VirtualCamera(const std::vector<std::string>& vecOption)
{
    setenv(DIR_VARIABLE, m_folder.path().c_str(), 1);
    std::vector<std::string> vecArgument{KESTREL_CAMERA_PROGRAM, "--dir", m_folder.path()};
    vecArgument.insert(vecArgument.end(), vecOption.begin(), vecOption.end());

    int anPipe[2] = {-1, -1};
    if (0 != pipe2(anPipe, O_CLOEXEC) || (m_nPid = fork()) < 0) {
        ADD_FAILURE() << strerror(errno);
        return;
    }
    if (0 == m_nPid) {
        become(vecArgument, anPipe[1]);
    }
    close(anPipe[1]);
    EXPECT_EQ("ready " + m_folder.path().string(), readLine(anPipe[0]));
    close(anPipe[0]);

    EXPECT_TRUE(m_control.connect(m_folder.path() / "control.sock")) << strerror(errno);
}

VirtualCamera::~VirtualCamera()
{
    if (m_nPid > 0) {
        kill(m_nPid, SIGTERM);
        int nStatus = 0;
        waitpid(m_nPid, &nStatus, 0);
        EXPECT_EQ(0, nStatus);
    }
    unsetenv(DIR_VARIABLE);
}

std::string VirtualCamera::command(const std::string& strLine)
{
    std::string strAnswer;
    EXPECT_TRUE(m_control.ask(strLine, strAnswer));
    EXPECT_EQ("ok", strAnswer.substr(0, 2)) << strLine << ": " << strAnswer;
    return strAnswer;
}

std::vector<std::string> VirtualCamera::readJournal() const
{
    std::vector<std::string> vecCall;
    std::istringstream stream(m_folder.read("journal"));
    for (std::string strLine; std::getline(stream, strLine);) {
        std::istringstream words(strLine);
        std::string strSeconds;
        std::string strPid;
        std::string strSession;
        std::string strCall;
        words >> strSeconds >> strPid >> strSession >> std::ws;
        std::getline(words, strCall);
        if ('#' != strCall[0]) {
            vecCall.push_back(strCall);
        }
    }
    return vecCall;
}

void VirtualCamera::clearJournal()
{
    command("journal clear");
}

size_t VirtualCamera::count(const std::string& strBegin) const
{
    size_t uCount = 0;
    for (const std::string& strCall : readJournal()) {
        uCount += (0 == strCall.compare(0, strBegin.size(), strBegin)) ? 1 : 0;
    }
    return uCount;
}

bool VirtualCamera::waitForCalls(const std::string& strBegin, size_t uTimes) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (count(strBegin) < uTimes) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

std::vector<VirtualCamera::Frame> VirtualCamera::frames() const
{
    std::vector<Frame> vecFrame;
    std::istringstream stream(m_folder.read("frames.log"));
    for (std::string strLine; std::getline(stream, strLine);) {
        std::istringstream words(strLine);
        Frame frame{};
        std::string strSequence;
        std::string strBytes;
        std::string strHash;
        std::string strIndex;
        words >> frame.u32Number >> strSequence >> strBytes >> strHash >> strIndex;
        char acName[32];
        snprintf(acName, sizeof(acName), "frames/%06u.jpg", frame.u32Number);
        if ("dropped" != strIndex && std::filesystem::exists(m_folder.path() / acName)) {
            frame.strPicture = m_folder.read(acName);
            vecFrame.push_back(frame);
        }
    }
    return vecFrame;
}
