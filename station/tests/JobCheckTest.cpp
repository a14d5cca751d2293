// What a whole job's check finds, and what the job comes to.
#include "JobCheck.h"

#include <gtest/gtest.h>

#include "JobDesk.h"

namespace {

/** The only finding, with its line, as text. */
std::string theOnly(const JobReport& report)
{
    if (1 != report.vecFinding.size()) {
        return std::to_string(report.vecFinding.size()) + " findings";
    }
    const JobFinding& finding = report.vecFinding[0];
    return std::to_string(finding.uLine) + (finding.bRefused ? " refused " : " note ") +
           finding.pReason + (finding.bMendable ? " mendable" : "");
}

} // namespace

TEST(JobCheck, GoodJobPassesWithNothingToSay)
{
    const JobReport report = checkGrbl("G21 G90\nG0 X10 Y10\nM4 S500\nG1 X60 F1200\nM5\n");

    EXPECT_TRUE(report.passes());
    EXPECT_TRUE(report.vecFinding.empty());
    EXPECT_EQ(5U, report.uLines);
    EXPECT_EQ(43U, report.uSize);
}

TEST(JobCheck, EachFaultOfTheGuardIsToldWithLineAndReason)
{
    EXPECT_EQ("2 refused outside the box", theOnly(checkGrbl("M5\nG0 X201\n")));
    EXPECT_EQ("1 refused feed", theOnly(checkGrbl("G1 X1\n")));
    EXPECT_EQ("1 refused feed", theOnly(checkGrbl("G1 X1 F6001\n")));
    EXPECT_EQ("1 refused power", theOnly(checkGrbl("S1001\n")));
    EXPECT_EQ("1 refused word not allowed", theOnly(checkGrbl("G28\n")));
    EXPECT_EQ("1 refused word not allowed", theOnly(checkGrbl("M104 S200\n")));
    EXPECT_EQ("1 refused no word", theOnly(checkGrbl("$H\n")));
    EXPECT_EQ("1 refused two words of a kind", theOnly(checkGrbl("G0 X1 X2\n")));
    EXPECT_EQ("1 refused arc", theOnly(checkGrbl("G2 X9 Y0 I1 F100\n")));
    EXPECT_EQ("1 refused parentheses", theOnly(checkGrbl("G0 X1 (left open\n")));
    EXPECT_EQ("1 refused too long", theOnly(checkGrbl("G1X" + std::string(77, '1') + "\n")));
    EXPECT_EQ("1 refused real-time byte", theOnly(checkGrbl("G0 X1 ~\n")));
}

TEST(JobCheck, LanguageDecidesOnWords)
{
    EXPECT_TRUE(checkGrbl("G20\nG0 X1\n").passes());
    EXPECT_EQ("1 refused word not allowed", theOnly(checkKestrel("G20\n")));
    EXPECT_TRUE(checkKestrel("G1 X1\n").passes());
}

TEST(JobCheck, RefusedLineChangesNothingForThoseBehind)
{
    const JobReport report = checkGrbl("G0 X10\nG91 G20 X100\nX20\n");

    EXPECT_EQ(1U, report.uRefused);
    EXPECT_DOUBLE_EQ(20, report.maximum[0]);
}

TEST(JobCheck, StartAndSystemsMoveTheJob)
{
    static const GrblLanguage GRBL;
    JobCheck check(jobLimits(), GRBL);
    EXPECT_TRUE(check.check("G91\nG0 X150\n", nullptr).passes());
    EXPECT_TRUE(check.check("G55\nG0 X150\n", nullptr).passes());

    check.setStart({60, 0, 0});
    check.setSystem(1, {60, 0, 0});

    EXPECT_FALSE(check.check("G91\nG0 X150\n", nullptr).passes());
    EXPECT_FALSE(check.check("G55\nG0 X150\n", nullptr).passes());
    EXPECT_TRUE(check.check("G54\nG0 X150\n", nullptr).passes());
}

TEST(JobCheck, LastLineWithoutLineEndIsRefusedAndMended)
{
    std::string strMended;

    EXPECT_EQ("2 refused last line without a line end mendable",
              theOnly(checkGrbl("G0 X1\nM5", &strMended)));

    EXPECT_EQ("G0 X1\nM5\n", strMended);
}

TEST(JobCheck, BeamLeftOnIsNotedAndSwitchedOffInMendedCopy)
{
    std::string strMended;
    const JobReport report = checkGrbl("M3 S5\nG1 X1 F60\n", &strMended);

    EXPECT_TRUE(report.passes());
    EXPECT_EQ("2 note beam left on at the end mendable", theOnly(report));
    EXPECT_EQ("M3 S5\nG1 X1 F60\nM5\n", strMended);
}

TEST(JobCheck, EndOfProgramSwitchesBeamOffInGrblOnly)
{
    EXPECT_TRUE(checkGrbl("M3 S5\nM2\n").vecFinding.empty());
    EXPECT_EQ("2 note beam left on at the end mendable", theOnly(checkKestrel("M3 S5\nM2\n")));
}

TEST(JobCheck, CarriageReturnsPercentLinesAndCommentsAreMended)
{
    const std::string strJob = "%\r\nG21 (Stra\xC3\x9F"
                               "e)\r\nG0 X5\t; wait!\r\nG0 X9 (" +
                               std::string(300, 'c') + ")\nM5\n";
    std::string strMended;

    const JobReport report = checkGrbl(strJob, &strMended);

    EXPECT_EQ(4U, report.uRefused);
    EXPECT_EQ(4U, report.uMendable);
    EXPECT_EQ("\nG21\nG0 X5\nG0 X9\nM5\n", strMended);
    EXPECT_TRUE(checkGrbl(strMended).passes());
    EXPECT_DOUBLE_EQ(9, report.maximum[0]); // looked at as behind the mended lines
}

TEST(JobCheck, LinesThatPassStayByteForByteInMendedCopy)
{
    const std::string strJob = "g0  x1 (one)\n\n  G1 X2 F60 ; two\nM5\n";
    std::string strMended;

    EXPECT_TRUE(checkGrbl(strJob, &strMended).passes());

    EXPECT_EQ(strJob, strMended);
}

TEST(JobCheck, LineThatTheServiceCutsIsRefused)
{
    const std::string strComment = "(" + std::string(252, 'c') + ")";
    ASSERT_EQ(254U, strComment.size());

    EXPECT_TRUE(checkGrbl(strComment + "\n").passes());
    EXPECT_EQ("1 refused too long mendable", theOnly(checkGrbl(strComment + " \n")));
}

TEST(JobCheck, EmptyAndHugeJobsAreRefused)
{
    EXPECT_EQ("0 refused empty", theOnly(checkGrbl("")));

    std::string strFull;
    while (strFull.size() < 32U << 20) {
        strFull += "(" + std::string(61, 'c') + ")\n";
    }
    ASSERT_EQ(32U << 20, strFull.size());
    EXPECT_TRUE(checkGrbl(strFull).passes());
    EXPECT_EQ("0 refused over 32 MiB", theOnly(checkGrbl(strFull + "\n")));
}

TEST(JobCheck, SumIsThatOfTheText)
{
    // sha256sum of "M5\n".
    EXPECT_EQ("dbd330440e51946caf887c64d4ac5893caa23887f2ec159ce6daac70f22d80fd",
              checkGrbl("M5\n").strSum);
}

TEST(JobCheck, LengthsTellBurningFromTravel)
{
    const JobReport report = checkGrbl("G0 X10\nM3 S300\nG1 X40 F900\nG0 Y50\nG1 X20 S0 F1500\n"
                                       "M5\nG1 X0 S700\n");

    EXPECT_NEAR(10 + 30 + 50 + 20 + 20, report.dPath, 1e-9);
    EXPECT_NEAR(30, report.dBurn, 1e-9);
    EXPECT_NEAR(50, report.dLitTravel, 1e-9);
    EXPECT_NEAR(1500, report.dMaxFeed, 1e-9);
    EXPECT_NEAR(300, report.dMaxPower, 1e-9); // 700 is told while the beam is off
}

TEST(JobCheck, BoxHoldsArcsWithExtremesAndInches)
{
    const JobReport report = checkGrbl("G0 X100 Y50\nG2 X100 Y50 I-20 J0 F600\nG20\nG1 X1 F10\n");

    ASSERT_TRUE(report.passes());
    EXPECT_NEAR(0, report.minimum[0], 1e-9); // where the first move begins
    EXPECT_NEAR(0, report.minimum[1], 1e-9);
    EXPECT_NEAR(100, report.maximum[0], 1e-9);
    EXPECT_NEAR(70, report.maximum[1], 1e-9);
    EXPECT_NEAR(111.803 + 125.664 + 74.6, report.dPath, 0.001);
}

TEST(JobCheck, ManyFindingsAreCountedButNotKept)
{
    std::string strJob;
    for (int n = 0; n < 3000; ++n) {
        strJob += "G0 X500\n";
    }

    const JobReport report = checkGrbl(strJob);

    EXPECT_EQ(3000U, report.uRefused);
    EXPECT_EQ(3000U, report.mapReason.at("outside the box"));
    EXPECT_EQ(1000U, report.vecFinding.size());
}

TEST(JobCheck, MovesAreHandedOnWithWhatTheBeamDoes)
{
    static const GrblLanguage GRBL;
    JobCheck check(jobLimits(), GRBL);
    std::vector<MOVE_BEAM_E> vecBeam;
    check.onMove([&vecBeam](const GcodeMove&, MOVE_BEAM_E eBeam) { vecBeam.push_back(eBeam); });

    (void)check.check("G0 X1\nM3 S1\nG1 X2 F60\nG0 X3\nM5\nG1 X4\nM5\n", nullptr);

    EXPECT_EQ((std::vector<MOVE_BEAM_E>{MOVE_DARK, MOVE_BURN, MOVE_LIT_TRAVEL, MOVE_DARK}),
              vecBeam);
}
