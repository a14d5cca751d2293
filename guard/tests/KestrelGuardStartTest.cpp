// The guard's start, and its three sides: port, terminal and socket.
#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
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
