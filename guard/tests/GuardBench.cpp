// A running kestrel-guard between a virtual controller and a test.
#include "GuardBench.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Eventually.h"

static const int DEADLINE_MS = 30000;

/** A test's own come last, and hold. */
static std::vector<std::string> controllerOptions(bool bGrbl,
                                                  const std::vector<std::string>& vecOption)
{
    if (!bGrbl) {
        return vecOption;
    }
    std::vector<std::string> vecAll{"--language", "grbl"};
    for (const char* const pSetting :
         {"32=1", "22=1", "24=500", "25=3000", "26=10", "27=1", "110=6000", "111=6000", "112=6000",
          "120=500", "121=500", "122=500", "130=60", "131=20", "132=10"}) {
        vecAll.emplace_back("--setting");
        vecAll.emplace_back(pSetting);
    }
    vecAll.insert(vecAll.end(), vecOption.begin(), vecOption.end());
    return vecAll;
}

GuardBench::GuardBench(bool bGrbl, const std::vector<std::string>& vecOption,
                       const std::string& strController)
    : m_controller(controllerOptions(bGrbl, vecOption))
{
    if (bGrbl) { // a greeting of its own start, read by the guard, would be that of a reset
        (void)eventually([this] { return !m_controller.readTexts("tx").empty(); });
    }
    m_folder.write("guard.toml", configuration(bGrbl, strController));
    m_pGuard = std::make_unique<ChildProgram>(std::vector<std::string>{
        KESTREL_GUARD, "--config", path("guard.toml"), "--last-port", path("last-port")});
    m_pOperator = std::make_unique<OperatorClient>(path("socket"));
    if (0 != access(path("socket").c_str(), F_OK)) {
        kill(m_pGuard->pid(), SIGKILL);
        const ChildResult result = m_pGuard->wait();
        throw std::runtime_error("the guard has not come: " + result.strOutput + result.strError);
    }
}

GuardBench::~GuardBench()
{
    closeService();
    m_pOperator.reset();
    if (m_pGuard->pid() > 0) {
        kill(m_pGuard->pid(), SIGTERM);
        (void)m_pGuard->wait();
    }
}

std::string GuardBench::configuration(bool bGrbl, const std::string& strController) const
{
    return "[controller]\nport = \"" + m_controller.getNode() + "\"\nlanguage = \"" +
           (bGrbl ? "grbl" : "kestrel") + "\"\n" + strController + "[service]\nlink = \"" +
           path("ttyACM") + "\"\n[operator]\nsocket = \"" + path("socket") +
           "\"\n[limits]\nmin = [-100, -100, -100]\nmax = [100.0, 100, 100]\nfeed = 6000\n"
           "power = 1000\nacceleration = 500\nrapid_feed = 6000\n";
}

pid_t GuardBench::worker() const
{
    const std::string strTask = std::to_string(m_pGuard->pid());
    std::ifstream file("/proc/" + strTask + "/task/" + strTask + "/children");
    pid_t nWorker = -1;
    file >> nWorker;
    return nWorker;
}

void GuardBench::openService()
{
    (void)eventually([this] {
        m_nService = open(path("ttyACM").c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        return m_nService >= 0;
    });
}

void GuardBench::closeService()
{
    if (m_nService >= 0) {
        close(m_nService);
        m_nService = -1;
    }
}

void GuardBench::send(const std::string& strBytes) const
{
    (void)!write(m_nService, strBytes.data(), strBytes.size());
}

std::string GuardBench::receive() const
{
    pollfd entry{m_nService, POLLIN, 0};
    std::array<char, 64> acData{};
    if (1 != poll(&entry, 1, DEADLINE_MS)) {
        return "";
    }
    const ssize_t nRead = read(m_nService, acData.data(), acData.size());
    return (nRead > 0) ? std::string(acData.data(), static_cast<size_t>(nRead)) : "";
}

bool GuardBench::waitForState(const std::string& strField)
{
    return eventually(
        [&] { return std::string::npos != op().ask("{\"do\":\"state\"}").find(strField); });
}

bool GuardBench::home()
{
    return waitForState("\"beam_seen_off\":true") &&
           eventually([this] { return "{\"ok\":true}" == op().ask("{\"do\":\"motion\"}"); }) &&
           "{\"ok\":true}" == op().ask("{\"do\":\"home\"}") && waitForState("\"homed\":true");
}

std::string GuardBench::openJob(const std::string& strJob, int nLeaseMs)
{
    m_folder.write("job.gcode", strJob);
    const int nFd = open(path("job.gcode").c_str(), O_RDONLY | O_CLOEXEC);
    std::string strAnswer;
    (void)eventually([&] { // the homing's last answer may still be due
        strAnswer = op().ask("{\"do\":\"job\",\"lease\":" + std::to_string(nLeaseMs) + "}", nFd);
        return std::string::npos == strAnswer.find("under way");
    });
    close(nFd);
    return strAnswer;
}

bool GuardBench::burn(int nLeaseMs)
{
    openService();
    if (!home() || std::string::npos == openJob("M3 S500\nG1 X-30 Y-5 F600\nG1 X-5\nG1 X-30\n"
                                                "G1 X-5\nM5\n",
                                                nLeaseMs)
                                            .find("\"ok\":true")) {
        return false;
    }
    return "ok\n" == run("M3 S500") && "ok\n" == run("G1 X-30 Y-5 F600") &&
           eventually([this] { return isBeamOn(); });
}

double GuardBench::beam(const std::string& strField)
{
    const std::string strText = " " + m_controller.command("beam");
    const size_t uPos = strText.find(" " + strField + "=");
    return (std::string::npos == uPos) ? -1 : atof(strText.c_str() + uPos + strField.size() + 2);
}

bool GuardBench::isBeamOn()
{
    return 1 == beam("on");
}

double GuardBench::now()
{
    return beam("now");
}

double GuardBench::waitForDark()
{
    return eventually([this] { return !isBeamOn(); }) ? beam("since") : -1;
}
