// The guard's start, and its three sides: port, terminal and socket.
#include <algorithm>
#include <csignal>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "GuardBench.h"

namespace {

size_t countCuts(GuardBench& bench)
{
    const std::vector<std::string> vecByte = bench.controller().readTexts("byte");
    return static_cast<size_t>(std::count(vecByte.begin(), vecByte.end(), "\x18"));
}

/** A guard whose standard output is a descriptor of the test's. */
class GuardWithOutput
{
public:
    /**
     * @param nOutput  taken over
     * @param nOther  not the guard's to keep; -1: none
     * @param vecWord  what starts it
     */
    GuardWithOutput(int nOutput, int nOther, std::vector<std::string> vecWord = {})
    {
        GuardBench bench(false); // for its configuration
        std::string strConfiguration = bench.configuration(false);
        for (const auto& [strFrom, strTo] :
             {std::pair<std::string, std::string>{bench.controller().getNode(),
                                                  m_controller.getNode()},
              {bench.path(""), path("")}}) {
            for (size_t u = 0; std::string::npos != (u = strConfiguration.find(strFrom, u));
                 u += strTo.size()) {
                strConfiguration.replace(u, strFrom.size(), strTo);
            }
        }
        m_folder.write("guard.toml", strConfiguration);
        vecWord.insert(vecWord.end(), {KESTREL_GUARD, "--config", path("guard.toml"), "--last-port",
                                       path("last-port")});
        std::vector<char*> vecPointer;
        for (std::string& strWord : vecWord) {
            vecPointer.push_back(strWord.data());
        }
        vecPointer.push_back(nullptr);
        m_nProcess = fork();
        if (0 == m_nProcess) {
            dup2(nOutput, STDOUT_FILENO);
            close(nOther);
            execvp(vecPointer[0], vecPointer.data());
            _exit(127);
        }
        close(nOutput);
    }
    GuardWithOutput(const GuardWithOutput&) = delete;
    GuardWithOutput& operator=(const GuardWithOutput&) = delete;
    ~GuardWithOutput()
    {
        (void)end();
    }

    std::string path(const std::string& strName) const
    {
        return (m_folder.path() / strName).string();
    }

    /** @return its status; -1 when a signal has ended it */
    int end()
    {
        int nStatus = -1;
        if (m_nProcess > 0) {
            kill(m_nProcess, SIGTERM);
            waitpid(std::exchange(m_nProcess, -1), &nStatus, 0);
        }
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    }

private:
    VirtualController m_controller;
    ScratchFolder m_folder;
    pid_t m_nProcess = -1;
};

} // namespace

TEST(KestrelGuardStart, SecondGuardIsRefusedWithoutSendingAByte)
{
    GuardBench bench(false);
    ASSERT_TRUE(bench.waitForState("\"beam_seen_off\":true"));
    const size_t uCuts = countCuts(bench);

    const ChildResult result = runChild({KESTREL_GUARD, "--config", bench.path("guard.toml"),
                                         "--last-port", bench.path("other-port")});

    EXPECT_EQ(2, result.nStatus);
    EXPECT_EQ("kestrel-guard: another guard has " + bench.controller().getNode() + "\n",
              result.strError);
    EXPECT_EQ(uCuts, countCuts(bench));
    EXPECT_NE(std::string::npos, bench.op().ask("{\"do\":\"state\"}").find("\"ok\":true"));
}

TEST(KestrelGuardStart, UnreadableConfigurationTurnsBeamOffOnThePortGivenOrLastUsed)
{
    VirtualController controller;
    ScratchFolder folder;
    folder.write("guard.toml", "[controller]\nport = 1\n");
    folder.write("last-port", controller.getNode() + "\n");
    const std::string strConfiguration = (folder.path() / "guard.toml").string();

    const ChildResult given = runChild({KESTREL_GUARD, "--config", strConfiguration, "--last-port",
                                        "/nonexistent", controller.getNode()});
    EXPECT_EQ(2, given.nStatus);
    EXPECT_NE(std::string::npos, given.strError.find("controller.port is no text\n"));
    EXPECT_TRUE(eventually([&controller] { return 1 == controller.readTexts("byte").size(); }));
    const ChildResult last = runChild({KESTREL_GUARD, "--config", strConfiguration, "--last-port",
                                       (folder.path() / "last-port").string()});
    EXPECT_EQ(2, last.nStatus);
    EXPECT_TRUE(eventually([&controller] { return 2 == controller.readTexts("byte").size(); }));
}

TEST(KestrelGuardStart, OffAloneTurnsBeamOff)
{
    VirtualController controller({"--power-up-laser-on"});
    ASSERT_EQ(1, controller.getState("laser"));

    const ChildResult result = runChild({KESTREL_GUARD, "--off", controller.getNode()});

    EXPECT_EQ(0, result.nStatus);
    EXPECT_TRUE(eventually([&controller] { return 0 == controller.getState("laser"); }));
    EXPECT_EQ(1, runChild({KESTREL_GUARD, "--off", "/nonexistent"}).nStatus);
}

TEST(KestrelGuardStart, CheckTellsWhatIsMissingAndTouchesNothing)
{
    VirtualController controller;
    ScratchFolder folder;
    const std::string strConfiguration = (folder.path() / "guard.toml").string();
    const std::string strWhole = "[controller]\nport = \"" + controller.getNode() +
                                 "\"\nlanguage = \"grbl\"\n[service]\nlink = \"/nonexistent/a\"\n"
                                 "[operator]\nsocket = \"/nonexistent/b\"\n"
                                 "[limits]\nmin = [0, 0, 0]\nmax = [1, 1, 1]\nfeed = 1\n"
                                 "power = 1\n";

    folder.write("guard.toml", strWhole);
    const ChildResult lacking = runChild({KESTREL_GUARD, "--check", "--config", strConfiguration});
    folder.write("guard.toml", strWhole + "acceleration = 1\n");
    const ChildResult complete = runChild({KESTREL_GUARD, "--check", "--config", strConfiguration});

    EXPECT_EQ(2, lacking.nStatus);
    EXPECT_EQ("kestrel-guard: " + strConfiguration + ": limits.acceleration is missing\n",
              lacking.strError);
    EXPECT_EQ(0, complete.nStatus);
    EXPECT_EQ("kestrel-guard: " + strConfiguration + " is complete\n", complete.strError);
    EXPECT_TRUE(controller.readTexts("byte").empty());
}

TEST(KestrelGuardStart, OffTakesLastPortElseTheConfigurations)
{
    GuardBench bench(false); // for its configuration
    ASSERT_TRUE(bench.waitForState("\"beam_seen_off\":true"));
    VirtualController last;
    ScratchFolder folder;
    folder.write("last-port", last.getNode() + "\n");
    const size_t uCuts = countCuts(bench);

    EXPECT_EQ(0, runChild({KESTREL_GUARD, "--config", bench.path("guard.toml"), "--last-port",
                           (folder.path() / "last-port").string(), "--off"})
                     .nStatus);
    EXPECT_EQ(std::vector<std::string>{"\x18"}, last.readTexts("byte"));
    EXPECT_EQ(uCuts, countCuts(bench));
    // A guard has this one: only root may send to it besides.
    const bool bRoot = 0 == geteuid();
    EXPECT_EQ(bRoot ? 0 : 1, runChild({KESTREL_GUARD, "--config", bench.path("guard.toml"),
                                       "--last-port", "/nonexistent", "--off"})
                                 .nStatus);
    EXPECT_TRUE(!bRoot || eventually([&] { return uCuts < countCuts(bench); }));
    EXPECT_EQ(1, runChild({KESTREL_GUARD, "--config", "/nonexistent", "--last-port", "/nonexistent",
                           "--off"})
                     .nStatus);
}

TEST(KestrelGuardStart, LastPortIsKeptByTheGuardThatHasThePortAlone)
{
    GuardBench bench(false);
    ASSERT_TRUE(bench.waitForState("\"beam_seen_off\":true"));
    std::ifstream file(bench.path("last-port"));
    std::string strPort;
    ASSERT_TRUE(static_cast<bool>(std::getline(file, strPort)));
    EXPECT_EQ(bench.controller().getNode(), strPort);

    EXPECT_EQ(2, runChild({KESTREL_GUARD, "--config", bench.path("guard.toml"), "--last-port",
                           bench.path("other-port")})
                     .nStatus);

    EXPECT_NE(0, access(bench.path("other-port").c_str(), F_OK));
}

TEST(KestrelGuardStart, SecondGuardIsRefusedWithoutAControllerToo)
{
    GuardBench bench(false);
    ASSERT_TRUE(bench.waitForState("\"beam_seen_off\":true"));
    ASSERT_EQ("ok", bench.controller().command("unplug"));
    ASSERT_TRUE(bench.waitForState("\"controller\":false"));

    const ChildResult result = runChild({KESTREL_GUARD, "--config", bench.path("guard.toml"),
                                         "--last-port", bench.path("other-port")});

    EXPECT_EQ(2, result.nStatus);
    EXPECT_EQ("kestrel-guard: another guard has " + bench.path("socket") + "\n", result.strError);
    EXPECT_TRUE(bench.waitForState("\"controller\":false")); // the first one is still heard
}

TEST(KestrelGuardStart, StopWithoutAControllerIsInOrder)
{
    GuardBench bench(false);
    ASSERT_TRUE(bench.waitForState("\"beam_seen_off\":true"));
    ASSERT_EQ("ok", bench.controller().command("unplug"));
    ASSERT_TRUE(bench.waitForState("\"controller\":false"));

    kill(bench.guard().pid(), SIGTERM);

    EXPECT_EQ(0, bench.guard().wait().nStatus);
}

TEST(KestrelGuardStart, StopThatDoesNotShowTheBeamOffIsToldByStatusOne)
{
    GuardBench bench(false);
    ASSERT_TRUE(bench.waitForState("\"beam_seen_off\":true"));
    ASSERT_EQ("ok", bench.controller().command("mute"));

    kill(bench.guard().pid(), SIGTERM);

    EXPECT_EQ(1, bench.guard().wait().nStatus);
}

TEST(KestrelGuardStart, GoneReaderOfTheJournalEndsNothing)
{
    int anPipe[2] = {-1, -1};
    ASSERT_EQ(0, pipe2(anPipe, O_CLOEXEC));
    GuardWithOutput guard(anPipe[1], anPipe[0]);
    close(anPipe[0]); // nobody reads

    OperatorClient client(guard.path("socket"));
    EXPECT_TRUE(eventually([&] {
        return std::string::npos != client.ask("{\"do\":\"state\"}").find("\"beam_seen_off\":true");
    }));

    EXPECT_EQ(0, guard.end());
}

TEST(KestrelGuardStart, StandardOutputThatTakesItsTimeDelaysNothing)
{
    // As on a busy disk: each write to this file takes longer than a beat may be missing. A
    // sanitizer cannot look for leaks in a traced process.
    const ScratchFolder folder;
    const std::string strOutput = (folder.path() / "output").string();
    GuardWithOutput guard(open(strOutput.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), -1,
                          {"strace", "-E", "ASAN_OPTIONS=detect_leaks=0", "-D", "-f", "-o",
                           "/dev/null", "-P", strOutput, "-e", "inject=write:delay_enter=1500000"});
    OperatorClient client(guard.path("socket"));

    EXPECT_TRUE(eventually([&] {
        EXPECT_EQ("{\"ok\":true}", client.ask("{\"do\":\"off\"}"));
        return testing::Test::HasFailure() || !folder.read("output").empty();
    }));

    EXPECT_EQ(0, guard.end());
}

TEST(KestrelGuardStart, ConfigurationIsReadAnewInDarkOnly)
{
    GuardBench bench(false);
    ASSERT_TRUE(bench.home());
    kill(bench.guard().pid(), SIGHUP);
    ASSERT_TRUE(bench.guard().waitForOutput("configuration not read anew: only in dark"));
    ASSERT_EQ("{\"ok\":true}", bench.op().ask("{\"do\":\"dark\"}"));

    kill(bench.guard().pid(), SIGHUP);

    ASSERT_TRUE(bench.guard().waitForOutput("configuration read anew"));
    OperatorClient client(bench.path("socket"));
    EXPECT_TRUE(eventually([&] {
        OperatorClient each(bench.path("socket"));
        return std::string::npos != each.ask("{\"do\":\"state\"}").find("\"homed\":false");
    }));
}

TEST(KestrelGuardStart, EndThatIsAskedForWhileItBeginsAnewIsNotLost)
{
    GuardBench bench(false);
    ASSERT_TRUE(bench.guard().waitForOutput("beam seen off"));

    kill(bench.guard().pid(), SIGHUP);

    kill(bench.guard().pid(), SIGTERM);
    EXPECT_EQ(0, bench.guard().wait().nStatus);
}

TEST(KestrelGuardStart, TerminalIsRawAndSocketIsForOwnerAndGroup)
{
    GuardBench bench(false);
    bench.openService();
    struct stat status = {};
    ASSERT_EQ(0, stat(bench.path("socket").c_str(), &status));
    EXPECT_EQ(0660U, status.st_mode & 0777U);
    const int nFd = open(bench.path("ttyACM").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios attr{};
    ASSERT_EQ(0, tcgetattr(nFd, &attr));
    close(nFd);

    EXPECT_EQ(0U, attr.c_iflag);
    EXPECT_EQ(0U, attr.c_oflag);
    EXPECT_EQ(0U, attr.c_lflag);
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&attr));
}

TEST(KestrelGuardStart, BothProcessesGoBeforeOthersWhereTheyMay)
{
    GuardBench bench(false);
    ASSERT_TRUE(bench.waitForState("\"beam_seen_off\":true"));
    const pid_t nChild = fork();
    if (0 == nChild) {
        _exit((0 == setpriority(PRIO_PROCESS, 0, -20)) ? 20 : 0);
    }
    int nStatus = 0;
    ASSERT_EQ(nChild, waitpid(nChild, &nStatus, 0));
    const int nFormer = getpriority(PRIO_PROCESS, 0);

    for (const pid_t nPid : {bench.guard().pid(), bench.worker()}) {
        EXPECT_EQ((20 == WEXITSTATUS(nStatus)) ? -20 : nFormer,
                  getpriority(PRIO_PROCESS, static_cast<id_t>(nPid)));
    }
}

TEST(KestrelGuardStart, RequestsThatMakeNoSenseAreAnswered)
{
    GuardBench bench(false);

    const std::string strDeep(4000, '[');
    for (const char* const pLine :
         {"", "x", "null", "\"do\"", "{\"do\":\"\xFF\"}",
          "{\"do\":", "{\"do\":\"job\",\"lease\":-1}", "{\"do\":\"job\",\"lease\":1e300}",
          "{\"do\":\"job\",\"lease\":18446744073709551616}", "{\"do\":\"firmware\",\"size\":{}}",
          strDeep.c_str(), "[]", "{}", "{\"do\":1}", "{\"do\":\"burn\"}", "{\"do\":\"job\"}",
          "{\"do\":\"job\",\"lease\":10001}"}) {
        EXPECT_NE(std::string::npos, bench.op().ask(pLine).find("\"ok\":false")) << pLine;
    }
    EXPECT_EQ("", bench.op().ask(std::string(5000, 'x')));
}

TEST(KestrelGuardStart, EventsGoToWhoAsksForThem)
{
    GuardBench bench(false);
    ASSERT_TRUE(bench.waitForState("\"beam_seen_off\":true"));
    ASSERT_EQ("{\"ok\":true}", bench.op().ask("{\"do\":\"events\"}"));
    OperatorClient other(bench.path("socket"));

    ASSERT_EQ("{\"ok\":true}", other.ask("{\"do\":\"motion\"}"));

    EXPECT_EQ("{\"event\":\"level\",\"level\":\"motion\"}", bench.op().readLine());
}
