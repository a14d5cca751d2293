// Which status codes the rest of the system hears of, and as what.
#include "StatusReport.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "PrintTest.h"

TEST(StatusReport, CodesOneToFourAreReported)
{
    const StatusReports reports;

    for (int nCode = 1; nCode <= 4; ++nCode) {
        reportStatus(nCode);
    }

    EXPECT_EQ((std::vector<std::string>{"Wx01", "Wx02", "Wx03", "Wx04"}), reports.codes());
}

TEST(StatusReport, OtherCodesAreNot)
{
    const StatusReports reports;

    for (const int nCode : {-1, 0, 5, 100}) {
        reportStatus(nCode);
    }

    EXPECT_EQ(std::vector<std::string>{}, reports.codes());
}
