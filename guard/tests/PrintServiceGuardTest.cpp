// The print service itself, with the guard between it and the virtual controller.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "EventBus.h"
#include "Eventually.h"
#include "GuardBench.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "PrintService.h"
#include "UART.h"

namespace {

/** A service of the test's own; the singleton would bring its past along. */
class FreshPrintService : public PrintService
{
};

class PrintServiceGuard : public testing::TestWithParam<bool>
{
protected:
    PrintServiceGuard() : m_bench(GetParam())
    {
        m_former = std::filesystem::current_path();
        std::filesystem::current_path(m_folder.path()); // the job's file is in the current one
        (void)eventually([this] { return 0 != m_uart.open(m_bench.path("ttyACM")); });
        (void)m_uart.setParam(115200, 8, 1, 0);
        m_service.setUart(&m_uart);
    }
    ~PrintServiceGuard() override
    {
        (void)m_service.stopPrint();
        m_service.setUart(nullptr);
        m_uart.close();
        std::filesystem::current_path(m_former);
    }

    void save(const std::string& strJob)
    {
        (void)m_service.saveGcode(strJob.data(), static_cast<int>(strJob.size()));
    }
    bool isLevel(const std::string& strLevel)
    {
        return std::string::npos !=
               m_bench.op().ask("{\"do\":\"state\"}").find("\"level\":\"" + strLevel + "\"");
    }

    ScratchFolder m_folder;
    std::filesystem::path m_former;
    GuardBench m_bench;
    UART m_uart;
    FreshPrintService m_service;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Languages, PrintServiceGuard, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& param) {
                             return param.param ? "Grbl" : "Kestrel";
                         });

TEST_P(PrintServiceGuard, JobIsCarriedOutLineByLineOnce)
{
    std::string strJob = "M4 S500\nG91\n";
    for (int n = 0; n < 60; ++n) { // more than the controller queues, all alike
        strJob += "G1 X-0.5 F6000\n";
    }
    strJob += "M5\n";
    save(strJob);
    ASSERT_TRUE(m_bench.home());
    const double dStart = m_bench.controller().getState("x");
    ASSERT_NE(std::string::npos, m_bench.openJob(strJob).find("\"ok\":true"));

    ASSERT_EQ(0, m_service.startPrint());

    EXPECT_TRUE(eventually([this] { return isLevel("dark"); }));
    EXPECT_NEAR(dStart - 30, m_bench.controller().getState("x"), 0.02);
    EXPECT_FALSE(m_bench.isBeamOn());
    EXPECT_TRUE(
        eventually([this] { return 0 != access((m_folder.path() / "tmp.gcode").c_str(), F_OK); }));
}

TEST_P(PrintServiceGuard, StartWithoutAJobOfTheOperatorsDoesNothing)
{
    save("M3 S500\nG1 X-5 F6000\n");
    ASSERT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));

    ASSERT_EQ(0, m_service.startPrint());
    ASSERT_TRUE(m_bench.guard().waitForOutput("refused 20"));
    ASSERT_EQ(0, m_service.stopPrint());

    EXPECT_FALSE(m_bench.isBeamOn());
    EXPECT_TRUE(isLevel("dark"));
    for (const std::string& strLine : m_bench.controller().readTexts("rx")) {
        EXPECT_EQ(std::string::npos, strLine.find("M3")) << strLine;
        EXPECT_EQ(std::string::npos, strLine.find("G1")) << strLine;
    }
}

TEST_P(PrintServiceGuard, BeamOffEndsJobAndServiceStops)
{
    const std::string strJob = "M3 S500\nG1 X-30 Y-5 F600\nG1 X-5\nG1 X-30\nG1 X-5\nM5\n";
    save(strJob);
    ASSERT_TRUE(m_bench.home());
    ASSERT_NE(std::string::npos, m_bench.openJob(strJob).find("\"ok\":true"));
    ASSERT_EQ(0, m_service.startPrint());
    ASSERT_TRUE(eventually([this] { return m_bench.isBeamOn(); }));

    EXPECT_EQ("{\"ok\":true}", m_bench.op().ask("{\"do\":\"off\"}"));

    EXPECT_GE(m_bench.waitForDark(), 0);
    EXPECT_EQ(0, m_service.stopPrint());
    EXPECT_TRUE(isLevel("dark"));
    EXPECT_FALSE(m_bench.isBeamOn());
}

TEST_P(PrintServiceGuard, MeasurementsHomeAndMove)
{
    ASSERT_TRUE(m_bench.home());

    MoveLaserEvent move(12.5F, 3);
    EventBus<MoveLaserEvent>::publish(move);
    MeasureEvent measure(1.25F);
    EventBus<MeasureEvent>::publish(measure);

    EXPECT_NEAR(-12.5, m_bench.controller().getState("x"), 0.01);
    EXPECT_NEAR(-3, m_bench.controller().getState("y"), 0.01);
    EXPECT_NEAR(-1.25, m_bench.controller().getState("z"), 0.01);
    EXPECT_FALSE(m_bench.isBeamOn());
}

TEST_P(PrintServiceGuard, MeasurementWithoutTheOperatorReturnsSoonAndMovesNothing)
{
    ASSERT_TRUE(m_bench.waitForState("\"beam_seen_off\":true"));
    const double dX = m_bench.controller().getState("x");
    const auto begun = std::chrono::steady_clock::now();

    MoveLaserEvent move(12.5F, 3);
    EventBus<MoveLaserEvent>::publish(move);

    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(15)); // not 20 s
    EXPECT_EQ(dX, m_bench.controller().getState("x"));
}
