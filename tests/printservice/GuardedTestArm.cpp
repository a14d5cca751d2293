// The arm that a print service is tested on: the guard, in the language that KESTREL_GUARD_LANGUAGE
// names, between it and the virtual controller.
#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ChildProgram.h"
#include "ControlClient.h"
#include "Eventually.h"
#include "OperatorClient.h"
#include "ScratchFolder.h"
#include "TestArm.h"
#include "Time.h"

namespace {

/** What the service has written to its port and read from it. */
std::atomic<int> g_nServiceFd{-1};
std::mutex g_mtxWire; // guards what follows
std::string g_strSent;
std::vector<VirtualController::Record> g_vecRecord;
std::map<std::string, int> g_mapTrigger; // commands, and the service's line that they come before
std::string g_strControl;                // where the controller takes them

bool isGrbl()
{
    const char* const pLanguage = getenv("KESTREL_GUARD_LANGUAGE");
    return nullptr != pLanguage && std::string("grbl") == pLanguage;
}

std::vector<std::string> addLanguage(std::vector<std::string> vecOption)
{
    if (isGrbl()) {
        vecOption.insert(vecOption.end(), {"--language", "grbl"});
        for (const char* const pSetting :
             {"32=1", "22=1", "24=500", "25=3000", "26=10", "27=1", "110=600000", "111=600000",
              "112=600000", "120=50000", "121=50000", "122=50000", "130=200", "131=200",
              "132=200"}) {
            vecOption.emplace_back("--setting");
            vecOption.emplace_back(pSetting);
        }
    }
    return vecOption;
}

std::string sent()
{
    const std::lock_guard<std::mutex> guard(g_mtxWire);
    return g_strSent;
}

void keep(const char* pKind, const std::string& strText)
{
    g_vecRecord.push_back({static_cast<double>(monotonicMs()) / 1000, pKind, strText});
}

/** Lines as the controller in the arm's language counts them: without each doubled line end. */
int countLines(const std::string& strBytes)
{
    int nLines = 0;
    bool bAfterLine = false;
    std::istringstream stream(strBytes);
    for (std::string strLine; std::getline(stream, strLine);) {
        const bool bBelongsToLine = strLine.empty() && bAfterLine;
        bAfterLine = !strLine.empty();
        nLines += bBelongsToLine ? 0 : 1;
    }
    return nLines;
}

} // namespace

/** On the service's thread: carries out such a command when its line's turn has come. */
static void fireTriggers(const std::string& strCommand, int nLine)
{
    {
        const std::lock_guard<std::mutex> guard(g_mtxWire);
        const auto it = g_mapTrigger.find(strCommand);
        if (g_mapTrigger.end() == it || it->second > nLine) {
            return;
        }
        g_mapTrigger.erase(it);
    }
    ControlClient control; // the test may be asking on its own
    std::string strAnswer;
    EXPECT_TRUE(control.connect(g_strControl) && control.ask(strCommand, strAnswer));
    EXPECT_EQ("ok", strAnswer);
}

// In place of the C library's.

extern "C" ssize_t write(int nFd, const void* pData, size_t uSize)
{
    if (nFd != g_nServiceFd) {
        return syscall(SYS_write, nFd, pData, uSize);
    }
    fireTriggers("hold", countLines(sent() + std::string(static_cast<const char*>(pData), uSize)));
    const std::lock_guard<std::mutex> guard(g_mtxWire);
    const ssize_t nWritten = syscall(SYS_write, nFd, pData, uSize);
    if (nWritten > 0) {
        const std::string strBytes(static_cast<const char*>(pData), static_cast<size_t>(nWritten));
        g_strSent += strBytes;
        std::istringstream stream(strBytes);
        for (std::string strLine; std::getline(stream, strLine);) {
            keep("rx", strLine);
        }
    }
    return nWritten;
}

extern "C" ssize_t read(int nFd, void* pData, size_t uSize)
{
    const ssize_t nRead = syscall(SYS_read, nFd, pData, uSize);
    if (nFd == g_nServiceFd && nRead > 0) {
        {
            const std::lock_guard<std::mutex> guard(g_mtxWire);
            keep("tx", {static_cast<const char*>(pData), static_cast<size_t>(nRead)});
        }
        fireTriggers("go", countLines(sent()) + 1); // soon enough for a report to tell it
    }
    return nRead;
}

struct TestArm::Guard
{
    explicit Guard(const std::string& strNode)
        : m_program(start(strNode)), m_operator(path("socket"))
    {
    }
    ~Guard()
    {
        kill(m_program.pid(), SIGTERM);
        (void)m_program.wait();
    }

    std::vector<std::string> start(const std::string& strNode)
    {
        m_folder.write("guard.toml",
                       "[controller]\nport = \"" + strNode + "\"\nlanguage = \"" +
                           (isGrbl() ? "grbl" : "kestrel") + "\"\n[service]\nlink = \"" +
                           path("ttyACM") + "\"\n[operator]\nsocket = \"" + path("socket") +
                           "\"\n[limits]\nmin = [-2000, -2000, -2000]\nmax = [2000, 2000, 2000]\n"
                           "feed = 600000\npower = 1000\nacceleration = 500\nrapid_feed = 6000\n"
                           "[job]\nlease = false\n");
        return {KESTREL_GUARD, "--config", path("guard.toml"), "--last-port", path("last-port")};
    }
    std::string path(const char* pName) const
    {
        return (m_folder.path() / pName).string();
    }
    bool is(const std::string& strField)
    {
        return std::string::npos != m_operator.ask("{\"do\":\"state\"}").find(strField);
    }
    bool wish(const std::string& strWish)
    {
        return eventually(
            [&] { return "{\"ok\":true}" == m_operator.ask("{\"do\":\"" + strWish + "\"}"); });
    }

    /** Level motion, homed; not in a job. */
    bool home(int nServiceFd)
    {
        if (is("\"level\":\"dark\"")) {
            if (!eventually([this] { return is("\"beam_seen_off\":true"); }) || !wish("motion")) {
                return false;
            }
        }
        if (!is("\"homed\":true")) {
            if (!wish("home") || !eventually([this] { return is("\"homed\":true"); })) {
                return false;
            }
            setFeed(nServiceFd);
        }
        return true;
    }

    /** Grbl has no feed after a reset, which homing follows; the tests' moves are of the arm's own
     * language. */
    void setFeed(int nServiceFd)
    {
        if (isGrbl() && nServiceFd >= 0) {
            (void)syscall(SYS_write, nServiceFd, "F1000\n", 6);
            pollfd entry{nServiceFd, POLLIN, 0};
            std::array<char, 64> acAnswer{};
            (void)poll(&entry, 1, 2000);
            (void)!read(nServiceFd, acAnswer.data(), acAnswer.size());
        }
    }

    ScratchFolder m_folder;
    ChildProgram m_program;
    OperatorClient m_operator;
};

TestArm::TestArm(const std::vector<std::string>& vecOption)
    : VirtualController(addLanguage(vecOption))
{
    if (isGrbl()) { // a greeting of its own start, read by the guard, would be that of a reset
        (void)eventually([this] { return !VirtualController::readTexts("tx").empty(); });
    }
    m_pGuard = std::make_unique<Guard>(getNode());
    (void)eventually([this] { return 0 == access(getPort().c_str(), F_OK); });
}

TestArm::~TestArm()
{
    g_nServiceFd = -1;
}

std::string TestArm::getPort() const
{
    return m_pGuard->path("ttyACM");
}

void TestArm::listenTo(int nFd)
{
    (void)m_pGuard->home(nFd);
    const std::lock_guard<std::mutex> guard(g_mtxWire);
    g_strSent.clear();
    g_vecRecord.clear();
    g_mapTrigger.clear();
    g_strControl = getFolder() + "/control";
    g_nServiceFd = nFd;
}

std::string TestArm::command(const std::string& strCommand)
{
    std::istringstream stream(strCommand);
    std::string strWord;
    int nLine = 0;
    if (!(stream >> strWord >> nLine) || "line" != strWord) {
        return VirtualController::command(strCommand);
    }
    std::string strRest;
    std::getline(stream >> std::ws, strRest);
    if ("status 4" == strRest) {
        return "ok"; // the guard tells by itself that a pause has ended
    }
    if (isGrbl() && ("go" == strRest || "status 1" == strRest)) {
        // The guard repeats nothing to it, and it tells a hold by its reports alone.
        const std::lock_guard<std::mutex> guard(g_mtxWire);
        g_mapTrigger[("go" == strRest) ? "go" : "hold"] = nLine;
        return "ok";
    }
    nLine += static_cast<int>(getState("lines")) - countLines(sent());
    return VirtualController::command("line " + std::to_string(nLine) + " " + strRest);
}

std::vector<VirtualController::Record> TestArm::readJournal()
{
    std::vector<Record> vecRecord;
    for (const Record& record : VirtualController::readJournal()) {
        if ("rx" != record.strKind && "tx" != record.strKind) {
            vecRecord.push_back(record);
        }
    }
    const std::lock_guard<std::mutex> guard(g_mtxWire);
    vecRecord.insert(vecRecord.end(), g_vecRecord.begin(), g_vecRecord.end());
    return vecRecord;
}

std::vector<std::string> TestArm::readTexts(const std::string& strKind)
{
    std::vector<std::string> vecText;
    for (const Record& record : readJournal()) {
        if (strKind == record.strKind) {
            vecText.push_back(record.strText);
        }
    }
    return vecText;
}

std::vector<std::string> TestArm::readJobLines()
{
    static const std::set<std::string> OWN{"",   "$$", "$#",    "$H",    "F1000", "()",
                                           "M5", "M8", "M18S0", "M18S1", "~"};
    std::vector<std::string> vecLine;
    for (std::string strLine : VirtualController::readTexts("rx")) {
        strLine.erase(std::remove(strLine.begin(), strLine.end(), ' '), strLine.end());
        if (0 == OWN.count(strLine)) {
            vecLine.push_back(strLine);
        }
    }
    return vecLine;
}

std::string TestArm::readReceivedBytes()
{
    (void)command("state"); // as much time as it takes to ask
    return sent();
}

void TestArm::allowJob(bool bGoesOn)
{
    if (bGoesOn && m_pGuard->is("\"level\":\"job\"")) {
        if (m_pGuard->is("\"paused\":true")) {
            (void)m_pGuard->wish("resume");
        } else if (isGrbl()) { // it holds by itself
            (void)VirtualController::command("go");
        }
        return;
    }
    const int nJob = open("tmp.gcode", O_RDONLY | O_CLOEXEC);
    if (nJob < 0) {
        return;
    }
    // The service is through with its former job before the controller is.
    if (eventually([this] { return !m_pGuard->is("\"level\":\"job\""); }) &&
        m_pGuard->home(g_nServiceFd)) {
        (void)eventually([this, nJob] { // an empty file is no job: the service runs it on its own
            const std::string strAnswer = m_pGuard->m_operator.ask("{\"do\":\"job\"}", nJob);
            return std::string::npos != strAnswer.find("\"ok\":true") ||
                   std::string::npos != strAnswer.find("the file is empty");
        });
    }
    close(nJob);
}

void TestArm::allowPause()
{
    if (m_pGuard->is("\"level\":\"job\"") && m_pGuard->wish("pause")) {
        (void)eventually([this] { // one that does not turn dark in time trips
            return m_pGuard->is("\"paused\":true") || m_pGuard->is("\"level\":\"dark\"");
        });
    }
}

void TestArm::allowStop()
{
    if (m_pGuard->is("\"level\":\"job\"")) {
        (void)m_pGuard->wish("stop");
    }
}
