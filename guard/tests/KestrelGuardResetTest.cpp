// The guard and the controller's reset line, on the virtual board's pins.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "BoardEnvironment.h"
#include "Eventually.h"
#include "GuardBench.h"
#include "ResetPin.h"
#include "ScratchFolder.h"

namespace {

[[maybe_unused]] const testing::Environment* const ENVIRONMENT =
    testing::AddGlobalTestEnvironment(new BoardEnvironment);

const char* const PIN = "/sys/class/gpio/gpio106/value";
const std::vector<std::string> OPTIONS{"--gpio", "/sys/class/gpio", "--boot-ms", "100"};

class KestrelGuardReset : public testing::TestWithParam<bool>
{
protected:
    KestrelGuardReset()
        : m_bench(GetParam(), OPTIONS, "reset_line = \"" + std::string(PIN) + "\"\n")
    {
    }
    bool waitForStore(const std::string& strStore)
    {
        return eventually([&] {
            const auto vecStore = m_bench.controller().readTexts("gpio");
            return vecStore.end() != std::find(vecStore.begin(), vecStore.end(), strStore);
        });
    }
    void expectHeldUntilLetGo()
    {
        EXPECT_TRUE(waitForStore("gpio106/value 0"));
        EXPECT_GE(m_bench.waitForDark(), 0);
        EXPECT_TRUE(m_bench.waitForState("\"reset_held\":true"));
        EXPECT_TRUE(m_bench.waitForState("\"controller\":false"));
        EXPECT_EQ("{\"ok\":true}", m_bench.op().ask("{\"do\":\"reset\"}"));
        EXPECT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));
        EXPECT_NE(std::string::npos,
                  m_bench.op().ask("{\"do\":\"state\"}").find("\"reset_held\":false"));
        EXPECT_EQ("gpio106/value 1", m_bench.controller().readTexts("gpio").back());
    }

    GuardBench m_bench;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Languages, KestrelGuardReset, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& param) {
                             return param.param ? "Grbl" : "Kestrel";
                         });

TEST_P(KestrelGuardReset, PinIsExportedAndHighFromTheStart)
{
    EXPECT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));
    EXPECT_TRUE(waitForStore("gpio106/direction high"));

    EXPECT_EQ((std::vector<std::string>{"export 106", "gpio106/direction high"}),
              m_bench.controller().readTexts("gpio"));
    EXPECT_EQ(1U, m_bench.controller().readTexts("plugged").size());
}

TEST_P(KestrelGuardReset, PulledCableHoldsTheLineLow)
{
    ASSERT_TRUE(m_bench.burn());

    ASSERT_EQ("ok", m_bench.controller().command("unplug"));

    expectHeldUntilLetGo();
}

TEST_P(KestrelGuardReset, ControllerThatDoesNotShowTheBeamOffHoldsTheLineLow)
{
    ASSERT_TRUE(m_bench.burn());
    ASSERT_EQ("ok", m_bench.controller().command("mute"));

    ASSERT_EQ("{\"ok\":true}", m_bench.op().ask("{\"do\":\"off\"}"));

    EXPECT_TRUE(m_bench.guard().waitForOutput("BEAM NOT SEEN OFF 1"));
    ASSERT_EQ("ok", m_bench.controller().command("unmute"));
    expectHeldUntilLetGo();
}

TEST_P(KestrelGuardReset, CablePulledInDarkLeavesTheLineAlone)
{
    ASSERT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));

    ASSERT_EQ("ok", m_bench.controller().command("unplug"));

    EXPECT_TRUE(m_bench.waitForState("\"controller\":false"));
    EXPECT_NE(std::string::npos,
              m_bench.op().ask("{\"do\":\"state\"}").find("\"reset_held\":false"));
    ASSERT_EQ("ok", m_bench.controller().command("plug"));
    EXPECT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));
    EXPECT_EQ(2U, m_bench.controller().readTexts("gpio").size()); // as at the start
}

TEST_P(KestrelGuardReset, ParentHoldsTheLineWhenThePortIsGone)
{
    ASSERT_TRUE(m_bench.burn());

    kill(m_bench.worker(), SIGSTOP);
    ASSERT_EQ("ok", m_bench.controller().command("unplug"));

    EXPECT_EQ(1, m_bench.guard().wait().nStatus);
    EXPECT_TRUE(waitForStore("gpio106/value 0"));
    EXPECT_GE(m_bench.waitForDark(), 0);
}

TEST(KestrelGuardResetPin, InputIsDrivenByItsDirection)
{
    VirtualController controller(OPTIONS);
    const ResetPin pin(PIN);

    ASSERT_TRUE(pin.hold(true)); // not even exported yet

    EXPECT_TRUE(eventually([&] { return 1 == controller.readTexts("unplugged").size(); }));
    EXPECT_EQ(
        (std::vector<std::string>{"export 106", "gpio106/direction high", "gpio106/direction low"}),
        controller.readTexts("gpio"));
    ASSERT_TRUE(pin.prepare()); // leaves it low
    EXPECT_EQ(3U, controller.readTexts("gpio").size());
    ASSERT_TRUE(pin.hold(false));
    EXPECT_TRUE(eventually([&] { return 2 == controller.readTexts("plugged").size(); }));
}

TEST(KestrelGuardResetPin, NoneAndAMissingOneAreTold)
{
    EXPECT_TRUE(ResetPin("").prepare());
    EXPECT_TRUE(ResetPin("").hold(true));
    EXPECT_FALSE(ResetPin("").isThere());
    EXPECT_FALSE(ResetPin("/nonexistent/gpio7/value").prepare());
    EXPECT_FALSE(ResetPin("/nonexistent/gpio7/value").hold(true));
    EXPECT_EQ(ENOENT, errno);
}

namespace {

/** A pin of plain files, as the kernel shows one, that nothing is connected to. */
class PlainPin
{
public:
    explicit PlainPin(const std::string& strLevel)
    {
        std::filesystem::create_directory(m_folder.path() / "gpio7");
        m_folder.write("gpio7/direction", "out\n");
        m_folder.write("gpio7/value", strLevel + "\n");
    }
    std::string getPath() const
    {
        return (m_folder.path() / "gpio7/value").string();
    }
    std::string getLine() const
    {
        return "reset_line = \"" + getPath() + "\"\n";
    }
    std::string getLevel() const
    {
        return m_folder.read("gpio7/value");
    }
    void setDirection(const std::string& strDirection) const
    {
        m_folder.write("gpio7/direction", strDirection + "\n");
    }

private:
    ScratchFolder m_folder;
};

bool sees(const GuardBench& bench, const std::string& strField)
{
    return eventually([&] {
        OperatorClient client(bench.path("socket")); // the former one ends with its worker
        return std::string::npos != client.ask("{\"do\":\"state\"}").find(strField);
    });
}

const char* const HELD = "\"reset_held\":true";
const char* const LET_GO = "\"reset_held\":false";

} // namespace

TEST(KestrelGuardResetAtStart, LineThatIsHeldAlreadyIsToldAndLetGo)
{
    const PlainPin pin("0");
    GuardBench bench(false, {}, pin.getLine());

    EXPECT_TRUE(bench.guard().waitForOutput("reset line is held low"));
    EXPECT_TRUE(sees(bench, HELD));
    EXPECT_EQ("0\n", pin.getLevel());
    EXPECT_EQ("{\"ok\":true}", bench.op().ask("{\"do\":\"reset\"}"));
    EXPECT_TRUE(sees(bench, LET_GO));
    EXPECT_EQ("1\n", pin.getLevel());
}

TEST(KestrelGuardResetAtStart, ConfigurationReadAnewForgetsNoHeldLine)
{
    const PlainPin pin("1");
    GuardBench bench(false, {}, pin.getLine());
    ASSERT_TRUE(sees(bench, LET_GO));
    ASSERT_EQ("ok", bench.controller().command("mute"));
    ASSERT_EQ("{\"ok\":true}", bench.op().ask("{\"do\":\"off\"}"));
    ASSERT_TRUE(sees(bench, HELD));
    ASSERT_EQ("ok", bench.controller().command("unmute")); // nothing else holds it again
    const pid_t nFormer = bench.worker();

    kill(bench.guard().pid(), SIGHUP);

    ASSERT_TRUE(eventually([&] { return bench.worker() > 0 && nFormer != bench.worker(); }));
    ASSERT_TRUE(sees(bench, "\"beam_seen_off\":true"));
    EXPECT_TRUE(sees(bench, HELD));
    EXPECT_EQ("0\n", pin.getLevel());
}

TEST(KestrelGuardResetAtStart, HeldLineIsNotExchangedForAnother)
{
    const PlainPin pin("0");
    GuardBench bench(false, {}, pin.getLine());
    ASSERT_TRUE(sees(bench, HELD));
    std::ofstream(bench.path("guard.toml")) << bench.configuration(false);

    kill(bench.guard().pid(), SIGHUP);

    EXPECT_TRUE(
        bench.guard().waitForOutput("configuration not read anew: the reset line is held low"));
    EXPECT_TRUE(sees(bench, HELD));
}

TEST(KestrelGuardResetPin, OnlyAnOutputThatIsLowIsHeld)
{
    const PlainPin low("0");
    const PlainPin high("1");
    const PlainPin input("0");
    input.setDirection("in");

    EXPECT_TRUE(ResetPin(low.getPath()).isHeld());
    EXPECT_FALSE(ResetPin(high.getPath()).isHeld());
    EXPECT_FALSE(ResetPin(input.getPath()).isHeld());
    EXPECT_FALSE(ResetPin("").isHeld());
    EXPECT_FALSE(ResetPin("/nonexistent/gpio7/value").isHeld());
}
