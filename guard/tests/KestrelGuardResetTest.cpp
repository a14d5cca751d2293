// The guard and the controller's reset line, on the virtual board's pins.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "BoardEnvironment.h"
#include "Eventually.h"
#include "GuardBench.h"
#include "ResetPin.h"

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
