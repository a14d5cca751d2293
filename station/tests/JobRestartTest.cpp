// A job that begins at one of its lines.
#include "JobRestart.h"

#include <array>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "GcodeCheck.h"
#include "GrblLanguage.h"

static const char* const SQUARE = "G21\n"          // 1
                                  "G90\n"          // 2
                                  "G54\n"          // 3
                                  "M3 S100\n"      // 4
                                  "G0 X1 Y2\n"     // 5
                                  "G1 X10 F1500\n" // 6
                                  "G1 Y20\n"       // 7
                                  "X1\n"           // 8
                                  "M5\n";          // 9

TEST(JobRestart, SetsUpWhatIsModalWithTheBeamOffAndTheBeamLast)
{
    const RestartedJob job = restartJob(SQUARE, 7);

    EXPECT_EQ("M5\nG21 G90 G17 G54\nG0 X10 Y2 F1500\nM3 S100\n"
              "G1 Y20\nX1\nM5\n",
              job.strText);
    EXPECT_EQ(4U, job.uAdded);
    EXPECT_EQ("", job.strReason);
}

TEST(JobRestart, MotionThatALineDoesNotNameIsSetUp)
{
    EXPECT_EQ("M5\nG21 G90 G17 G54\nG0 X10 Y20 F1500\nG1 X10 Y20\nM3 S100\nX1\nM5\n",
              restartJob(SQUARE, 8).strText);
}

TEST(JobRestart, FirstLinesHaveNoPlaceYet)
{
    EXPECT_EQ("M5\nG21 G90 G17 G54\nG1 X1 F60\n", restartJob("G21\nG1 X1 F60\n", 2).strText);
}

TEST(JobRestart, BeamThatWasOffStaysOffWithItsPower)
{
    EXPECT_EQ("M5\nG21 G90 G17 G54\nG0 X1\nS7.5\nG1 X2 F60\n",
              restartJob("M4 S7.5\nM5\nG0 X1\nG1 X2 F60\n", 4).strText);
}

TEST(JobRestart, InchesAndRelativeModeComeBehindTheWay)
{
    EXPECT_EQ("M5\nG21 G90 G17 G54\nG0 X50.8 Y-25.4 F254\nG20\nG91\nM4 S1\nG1 X1\n",
              restartJob("G20 G90 M4 S1\nG0 X1 Y-1 F10\nG91\nG1 X1\nG1 X1\n", 5).strText);
}

TEST(JobRestart, OtherCoordinateSystemAndAirAreSetUp)
{
    EXPECT_EQ("M5\nG21 G90 G17 G56\nG0 X3 Z-1\nM7\nG0 X4\n",
              restartJob("M7\nG56\nG0 X3 Z-1\nG0 X4\n", 4).strText);
}

TEST(JobRestart, AxisThatIsNotNamedIsLeftAlone)
{
    const RestartedJob job = restartJob("G0 X1\nG1 Y1 F60\n", 2);

    EXPECT_EQ(std::string::npos, job.strText.substr(0, job.strText.find("G1")).find_first_of("YZ"));
}

TEST(JobRestart, PlaceThatNobodyKnowsIsRefused)
{
    EXPECT_EQ("the lines before do not tell where X stands",
              restartJob("G91\nG0 X1\nG0 X1\n", 3).strReason);
    EXPECT_EQ("the lines before do not tell where Y stands",
              restartJob("G0 Y1\nG55\nG0 Y2\n", 3).strReason);
    EXPECT_EQ("", restartJob("G0 Y1\nG55\nG0 Y2\nG0 Y3\n", 4).strReason); // told again
    EXPECT_EQ("", restartJob("G0 Y1\nG54\nG0 Y2\n", 3).strReason);        // the same one
}

TEST(JobRestart, ShiftedOriginEndedProgramAndUnnamedArcAreRefused)
{
    EXPECT_EQ("line 2 has shifted the origin by where the arm stood",
              restartJob("G0 X1\nG92 X0\nG0 X2\n", 3).strReason);
    EXPECT_EQ("line 1 has ended the program", restartJob("M2\nG0 X2\n", 2).strReason);
    EXPECT_EQ("that line goes on an arc without saying so",
              restartJob("G0 X0 Y0\nG2 X2 I1 F60\nF30\nX0 I-1\n", 3).strReason);
    EXPECT_EQ("", restartJob("G0 X0 Y0\nG2 X2 I1 F60\nF30\nG2 X0 I-1\n", 3).strReason);
}

TEST(JobRestart, LineThatIsNotThereIsRefused)
{
    EXPECT_EQ("the file has no such line", restartJob(SQUARE, 10).strReason);
    EXPECT_EQ("the file has no such line", restartJob(SQUARE, 0).strReason);
    EXPECT_EQ("", restartJob(SQUARE, 9).strReason);
    EXPECT_EQ("the file has no such line", restartJob("", 1).strReason);
}

TEST(JobRestart, QueueOfTheControllerIsUnsure)
{
    std::string strText = "G21\n";
    for (int n = 0; n < 40; ++n) {
        strText += "G1 X1 F60\nS1\n"; // lines 2, 4, 6 ... move
    }

    EXPECT_EQ(1U, findUnsure(strText, 0));
    EXPECT_EQ(1U, findUnsure(strText, 35)); // 17 moves
    EXPECT_EQ(2U, findUnsure(strText, 36)); // 18
    EXPECT_EQ(2U, findUnsure(strText, 37));
    EXPECT_EQ(4U, findUnsure(strText, 38));
}

namespace {

/** The guard's own view of a job, line by line. */
class Follower
{
public:
    Follower() : m_check(makeLimits(), getLanguage().getWords(), 0)
    {
        m_check.setPosition({});
    }

    /** What a line did, as numbers; empty: it is refused. */
    std::vector<double> apply(const std::string& strLine)
    {
        GcodeLine line;
        int64_t s64DurationUs = 0;
        if (LINE_GOOD != parseGcode(strLine.data(), strLine.size(), line) ||
            LINE_GOOD != m_check.apply(line, true, s64DurationUs)) {
            return {};
        }
        for (const int n : {3, 4, 5}) {
            m_nBeam = line.hasM(10 * n) ? n : m_nBeam;
        }
        const GcodeMove& move = m_check.getMove();
        const MachinePoint& place = m_check.getPosition();
        return {place[0],           place[1],
                place[2],           move.dLength,
                move.dFeed,         static_cast<double>(move.nMotion),
                m_check.getPower(), static_cast<double>(m_nBeam)};
    }

private:
    static GuardLimits makeLimits()
    {
        GuardLimits limits;
        limits.minimum = {-1e6, -1e6, -1e6};
        limits.maximum = {1e6, 1e6, 1e6};
        limits.dMaxFeed = 1e6;
        limits.dMaxPower = 1000;
        return limits;
    }

    static const GrblLanguage& getLanguage()
    {
        static const GrblLanguage s_language;
        return s_language;
    }

    GcodeCheck m_check;
    int m_nBeam = 5;
};

std::vector<std::string> makeRandomJob(std::mt19937& random)
{
    static const std::array<const char*, 16> WORDS{
        "G0 X#",    "G1 Y# F9#", "X#",  "Z#", "G2 X# Y# R900", "X# R-999", "G90", "G91",
        "G1 X# Y#", "G20",       "G21", "S#", "M3 S#",         "M4",       "M5",  "G54 F#5"};
    Follower follower;
    std::vector<std::string> vecLine;
    for (int n = 0; n < 40; ++n) {
        std::string strLine = WORDS[random() % WORDS.size()];
        for (size_t u = strLine.find('#'); std::string::npos != u; u = strLine.find('#')) {
            strLine.replace(u, 1, std::to_string(random() % 30));
        }
        Follower trial = follower;
        if (!trial.apply(strLine).empty()) {
            (void)follower.apply(strLine);
            vecLine.push_back(strLine);
        }
    }
    return vecLine;
}

std::vector<std::string> split(const std::string& strText)
{
    std::vector<std::string> vecLine;
    for (size_t uPlace = 0; uPlace < strText.size();) {
        const size_t uEnd = strText.find('\n', uPlace);
        vecLine.push_back(strText.substr(uPlace, uEnd - uPlace));
        uPlace = uEnd + 1;
    }
    return vecLine;
}

} // namespace

TEST(JobRestart, GuardSeesTheSameRestOfAnyJob)
{
    std::mt19937 random(18); // NOLINT(cert-msc32-c,cert-msc51-cpp): the same each time
    size_t uBegun = 0;
    for (int nJob = 0; nJob < 100; ++nJob) {
        const std::vector<std::string> vecLine = makeRandomJob(random);
        std::string strJob;
        for (const std::string& strLine : vecLine) {
            strJob += strLine + "\n";
        }
        for (size_t uLine = 2; uLine <= vecLine.size(); ++uLine) {
            const RestartedJob job = restartJob(strJob, uLine);
            if (!job.strReason.empty()) {
                continue;
            }
            ++uBegun;
            Follower whole;
            for (size_t u = 1; u < uLine; ++u) {
                (void)whole.apply(vecLine[u - 1]);
            }
            Follower rest;
            const std::vector<std::string> vecRest = split(job.strText);
            for (size_t u = 0; u < job.uAdded; ++u) {
                ASSERT_FALSE(rest.apply(vecRest[u]).empty()) << vecRest[u];
            }
            for (size_t u = uLine; u <= vecLine.size(); ++u) {
                const std::vector<double> vecWanted = whole.apply(vecLine[u - 1]);
                const std::vector<double> vecSeen = rest.apply(vecRest[u - uLine + job.uAdded]);
                ASSERT_EQ(vecWanted.size(), vecSeen.size()) << strJob << "at " << uLine;
                for (size_t uNumber = 0; uNumber < vecWanted.size(); ++uNumber) {
                    ASSERT_NEAR(vecWanted[uNumber], vecSeen[uNumber], 0.01)
                        << strJob << "at " << uLine << ", " << vecLine[u - 1];
                }
            }
        }
    }
    EXPECT_GT(uBegun, 500U);
}
