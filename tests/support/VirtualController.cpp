// Runs a kestrel-controller for a test and talks to it.
#include "VirtualController.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ControllerJournal.h"

static const char* const FILES[] = {"control", "journal", "image", "scene", "ttyACM0"};

namespace {

[[noreturn]] void fail(const std::string& strWhat)
{
    throw std::runtime_error("virtual controller: " + strWhat);
}

/** Read up to the next line end, which is left out. */
std::string readLine(int nFd)
{
    std::string strLine;
    for (char c = 0;;) {
        const ssize_t nRead = read(nFd, &c, 1);
        if (nRead < 0 && EINTR == errno) {
            continue;
        }
        if (nRead <= 0) {
            fail("ended before it was ready");
        }
        if ('\n' == c) {
            return strLine;
        }
        strLine += c;
    }
}

} // namespace

VirtualController::VirtualController(const std::vector<std::string>& vecOption)
{
    std::string strTemplate = "/tmp/kestrel-controller.XXXXXX";
    if (nullptr == mkdtemp(strTemplate.data())) {
        fail("no scratch folder");
    }
    m_strFolder = strTemplate;
    m_strNode = m_strFolder + "/ttyACM0";
    std::vector<std::string> vecAll = {
        "--control", m_strFolder + "/control", "--journal", m_strFolder + "/journal",
        "--image",   getImagePath(),           "--scene",   getScenePath()};
    for (size_t i = 0; i < vecOption.size(); ++i) {
        if ("--node" == vecOption[i] && i + 1 < vecOption.size()) {
            m_strNode = vecOption[i + 1];
        }
        vecAll.push_back(vecOption[i]);
    }
    vecAll.insert(vecAll.begin(), {"--node", m_strNode});
    try {
        start(vecAll);
        if (!m_control.connect(m_strFolder + "/control")) {
            fail("no control socket");
        }
    } catch (...) {
        end();
        throw;
    }
}

VirtualController::~VirtualController()
{
    end();
}

void VirtualController::end()
{
    if (m_nPid > 0) {
        kill(m_nPid, SIGTERM);
        while (waitpid(m_nPid, nullptr, 0) < 0 && EINTR == errno) {
        }
    }
    for (const char* const pFile : FILES) {
        unlink((m_strFolder + "/" + pFile).c_str());
    }
    rmdir(m_strFolder.c_str());
}

void VirtualController::start(const std::vector<std::string>& vecOption)
{
    const char* const pOverride = getenv("KESTREL_CONTROLLER");
    const std::string strProgram = (nullptr != pOverride) ? pOverride : KESTREL_CONTROLLER;
    std::vector<char*> vecArg = {const_cast<char*>(strProgram.c_str())};
    for (const std::string& strOption : vecOption) {
        vecArg.push_back(const_cast<char*>(strOption.c_str()));
    }
    vecArg.push_back(nullptr);

    std::array<int, 2> anPipe{};
    if (0 != pipe2(anPipe.data(), O_CLOEXEC)) {
        fail("no pipe");
    }
    m_nPid = fork();
    if (0 == m_nPid) {
        prctl(PR_SET_PDEATHSIG, SIGTERM); // a test that crashes leaves nothing behind
        dup2(anPipe[1], STDOUT_FILENO);
        execv(vecArg[0], vecArg.data());
        _exit(127);
    }
    close(anPipe[1]);
    if (m_nPid < 0 || "ready" != readLine(anPipe[0])) {
        fail("not ready");
    }
    close(anPipe[0]);
}

std::string VirtualController::command(const std::string& strCommand)
{
    std::string strAnswer;
    if (!m_control.ask(strCommand, strAnswer)) {
        fail("ended while it was asked");
    }
    return strAnswer;
}

double VirtualController::getState(const std::string& strField)
{
    const std::string strState = " " + command("state");
    const size_t nPos = strState.find(" " + strField + "=");
    if (std::string::npos == nPos) {
        fail("no field " + strField + " in" + strState);
    }
    return strtod(strState.c_str() + nPos + strField.size() + 2, nullptr);
}

std::vector<VirtualController::Record> VirtualController::readJournal()
{
    (void)command("state"); // brings the log up to date
    std::ifstream file(m_strFolder + "/journal");
    std::vector<Record> vecRecord;
    for (std::string strLine; std::getline(file, strLine);) {
        const size_t nKind = strLine.find(' ') + 1;
        const size_t nText = strLine.find(' ', nKind) + 1;
        vecRecord.push_back({strtod(strLine.c_str(), nullptr),
                             strLine.substr(nKind, nText - 1 - nKind),
                             ControllerJournal::unescape(strLine.substr(nText))});
    }
    return vecRecord;
}

std::vector<std::string> VirtualController::readTexts(const std::string& strKind)
{
    std::vector<std::string> vecText;
    for (const Record& record : readJournal()) {
        if (strKind == record.strKind) {
            vecText.push_back(record.strText);
        }
    }
    return vecText;
}

std::string VirtualController::readReceivedBytes()
{
    std::string strBytes;
    for (const std::string& strLine : readTexts("rx")) {
        strBytes += strLine + "\n";
    }
    // Whoever says "exactly these bytes" means those behind the last line end, too.
    strBytes += ControllerJournal::unescape(command("input").substr(strlen("input=")));
    return strBytes;
}

bool VirtualController::waitUntil(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    return true;
}
