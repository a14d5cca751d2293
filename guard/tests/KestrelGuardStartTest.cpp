// The guard's start, and its three sides: port, terminal and socket.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "GuardBench.h"
#include "ServicePort.h"

namespace {

size_t countCuts(GuardBench& bench)
{
    const std::vector<std::string> vecByte = bench.controller().readTexts("byte");
    return static_cast<size_t>(std::count(vecByte.begin(), vecByte.end(), "\x18"));
}

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

TEST(KestrelGuardStart, TerminalIsOpenToTheServicesGroup)
{
    const group* const pGroup = getgrgid(getgid());
    ASSERT_NE(nullptr, pGroup);
    ScratchFolder folder;
    const std::string strLink = (folder.path() / "terminal").string();
    ServicePort port(strLink, pGroup->gr_name);
    ServicePort nobodys((folder.path() / "nobodys").string(), "no such group");

    ASSERT_TRUE(port.renew());
    EXPECT_FALSE(nobodys.renew());
    EXPECT_EQ(ENOENT, errno);

    struct stat status = {};
    ASSERT_EQ(0, stat(strLink.c_str(), &status));
    EXPECT_EQ(0660U, status.st_mode & 0777U);
    EXPECT_EQ(getgid(), status.st_gid);
}

TEST(KestrelGuardStart, RequestsThatMakeNoSenseAreAnswered)
{
    GuardBench bench(false);

    for (const char* const pLine : {"", "x", "[]", "{}", "{\"do\":1}", "{\"do\":\"burn\"}",
                                    "{\"do\":\"job\"}", "{\"do\":\"job\",\"lease\":10001}"}) {
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
