// What lines of G-code may do, and where they lead.
#include "GcodeCheck.h"

#include <string>

#include <gtest/gtest.h>

#include "GrblLanguage.h"
#include "InterlockDesk.h"
#include "KestrelLanguage.h"

namespace {

/** A check whose head stands at the origin. */
class GcodeCheckDesk
{
public:
    explicit GcodeCheckDesk(const ILanguage& language, const GuardLimits& limits = deskLimits())
        : m_check(limits, language.getWords(), language.getPowerUpFeed())
    {
        m_check.setPosition({0, 0, 0});
    }

    LINE_FAULT_E apply(const std::string& strLine, bool bBeamAllowed = true)
    {
        GcodeLine line;
        const LINE_FAULT_E eFault = parseGcode(strLine.data(), strLine.size(), line);
        return (LINE_GOOD == eFault) ? m_check.apply(line, bBeamAllowed, m_s64DurationUs) : eFault;
    }

    GcodeCheck m_check;
    int64_t m_s64DurationUs = 0;
};

const GrblLanguage GRBL;
const KestrelLanguage KESTREL;

void expectAt(const GcodeCheckDesk& desk, double dX, double dY, double dZ)
{
    EXPECT_NEAR(dX, desk.m_check.getPosition()[0], 1e-9);
    EXPECT_NEAR(dY, desk.m_check.getPosition()[1], 1e-9);
    EXPECT_NEAR(dZ, desk.m_check.getPosition()[2], 1e-9);
}

} // namespace

TEST(GcodeCheck, MovesEndWithinBox)
{
    GcodeCheckDesk desk(GRBL);

    EXPECT_EQ(LINE_GOOD, desk.apply("G1 X100 Y-100 Z100 F1000"));
    EXPECT_EQ(LINE_BOX, desk.apply("G1 X100.001"));
    EXPECT_EQ(LINE_BOX, desk.apply("G0 Z-100.1"));
    expectAt(desk, 100, -100, 100);
}

TEST(GcodeCheck, RelativeMovesAddUp)
{
    GcodeCheckDesk desk(GRBL);

    EXPECT_EQ(LINE_GOOD, desk.apply("G91 G1 X60 F1000"));
    EXPECT_EQ(LINE_BOX, desk.apply("X60"));
    EXPECT_EQ(LINE_GOOD, desk.apply("X-10"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G90 Y1"));
    expectAt(desk, 50, 1, 0);
}

TEST(GcodeCheck, InchesCountAsSuch)
{
    GcodeCheckDesk desk(GRBL);

    EXPECT_EQ(LINE_GOOD, desk.apply("G20 G1 X1 F10"));
    expectAt(desk, 25.4, 0, 0);
    EXPECT_EQ(LINE_BOX, desk.apply("X4"));
    EXPECT_EQ(LINE_FEED, desk.apply("X1 F237"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G21 X1 F237"));
    expectAt(desk, 1, 0, 0);
}

TEST(GcodeCheck, CoordinateSystemsAndShiftMoveOrigin)
{
    GcodeCheckDesk desk(GRBL);
    desk.m_check.setSystem(1, {50, 0, 0});

    EXPECT_EQ(LINE_BOX, desk.apply("G55 G1 X51 F1000"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G55 G1 X49 F1000"));
    expectAt(desk, 99, 0, 0);
    EXPECT_EQ(LINE_GOOD, desk.apply("G54 X10"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G92 X0"));
    EXPECT_EQ(LINE_BOX, desk.apply("X91"));
    EXPECT_EQ(LINE_GOOD, desk.apply("X90"));
    expectAt(desk, 100, 0, 0);
}

TEST(GcodeCheck, RefusedLineChangesNothing)
{
    GcodeCheckDesk desk(GRBL);
    ASSERT_EQ(LINE_GOOD, desk.apply("G1 X10 F1000"));

    EXPECT_EQ(LINE_BOX, desk.apply("G91 G20 X100"));

    EXPECT_EQ(LINE_GOOD, desk.apply("X20"));
    expectAt(desk, 20, 0, 0);
}

TEST(GcodeCheck, ArcsCountWithExtremes)
{
    GcodeCheckDesk desk(GRBL);
    ASSERT_EQ(LINE_GOOD, desk.apply("G1 X80 Y-30 F1000"));

    // The same ends; counterclockwise the arc bulges over X 110, with the centre at X 80 up to it.
    EXPECT_EQ(LINE_BOX, desk.apply("G3 X80 Y30 I0 J30"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G2 X80 Y30 I0 J30"));
    expectAt(desk, 80, 30, 0);
}

TEST(GcodeCheck, WholeCirclesCountWithAllExtremes)
{
    GcodeCheckDesk desk(GRBL);
    ASSERT_EQ(LINE_GOOD, desk.apply("G1 X80 F1000"));

    EXPECT_EQ(LINE_GOOD, desk.apply("G2 X80 Y0 I10 J0"));
    EXPECT_EQ(LINE_BOX, desk.apply("G2 X80 Y0 I10.1 J0"));
    EXPECT_EQ(LINE_BOX, desk.apply("G3 X80 Y0 I0 J51"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G3 X80 Y0 I0 J-10"));
}

TEST(GcodeCheck, ArcsByRadiusTakeShorterOrLongerWay)
{
    GcodeCheckDesk desk(GRBL);
    ASSERT_EQ(LINE_GOOD, desk.apply("G1 X90 Y-8 F1000"));

    // Radius 10 over a chord of 16 mm: centre 6 mm beside it; the longer way reaches 16 mm out.
    EXPECT_EQ(LINE_GOOD, desk.apply("G3 X90 Y8 R10"));
    ASSERT_EQ(LINE_GOOD, desk.apply("G1 X90 Y-8"));
    EXPECT_EQ(LINE_BOX, desk.apply("G3 X90 Y8 R-10"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G2 X90 Y8 R-10"));
}

TEST(GcodeCheck, ArcsHaveToFitTheirCentre)
{
    GcodeCheckDesk desk(GRBL);
    ASSERT_EQ(LINE_GOOD, desk.apply("G1 X0 F1000"));

    EXPECT_EQ(LINE_ARC, desk.apply("G2 X10 Y0 I4 J0"));
    EXPECT_EQ(LINE_ARC, desk.apply("G2 X10 Y0 R4"));
    EXPECT_EQ(LINE_ARC, desk.apply("G2 X10 Y0"));
    EXPECT_EQ(LINE_ARC, desk.apply("G2 I4"));
    EXPECT_EQ(LINE_ARC, desk.apply("G1 X10 I4"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G2 X10 Y0 I5 J0"));
}

TEST(GcodeCheck, FeedAndPowerStayWithinLimits)
{
    GcodeCheckDesk desk(GRBL);

    EXPECT_EQ(LINE_FEED, desk.apply("G1 X1"));
    EXPECT_EQ(LINE_FEED, desk.apply("G1 X1 F0"));
    EXPECT_EQ(LINE_FEED, desk.apply("G1 X1 F6000.1"));
    EXPECT_EQ(LINE_FEED, desk.apply("G1 X1 F-1"));
    EXPECT_EQ(LINE_POWER, desk.apply("M3 S1000.1"));
    EXPECT_EQ(LINE_POWER, desk.apply("M4 S-1"));
    EXPECT_EQ(LINE_GOOD, desk.apply("M4 S1000"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G1 X1 F6000"));
}

TEST(GcodeCheck, FeedAfterResetIsTheLanguages)
{
    EXPECT_EQ(LINE_GOOD, GcodeCheckDesk(KESTREL).apply("G1 X1"));
    EXPECT_EQ(LINE_FEED, GcodeCheckDesk(GRBL).apply("G1 X1"));
}

TEST(GcodeCheck, LaserWordsAreRefusedWhereTheBeamStaysOff)
{
    GcodeCheckDesk desk(GRBL);

    EXPECT_EQ(LINE_LASER, desk.apply("M3", false));
    EXPECT_EQ(LINE_LASER, desk.apply("M4 S0", false));
    EXPECT_EQ(LINE_LASER, desk.apply("G1 X1 F100 S1", false));
    EXPECT_EQ(LINE_GOOD, desk.apply("M5 S0", false));
    EXPECT_EQ(LINE_GOOD, desk.apply("G1 X1 F100", false));
}

TEST(GcodeCheck, WordsOutsideAllowedSetAreRefused)
{
    GcodeCheckDesk desk(GRBL);

    for (const char* const pLine :
         {"G10 L2 P1 X1", "G28", "G30", "G38.2 X1 F10", "G53 G0 X1", "M0",    "M1",  "M6",
          "G18",          "G19", "G93", "G43.1 Z1",     "T1",        "G92.1", "G80", "A1",
          "G1 X1 F10 Q2", "M18", "M21", "G05 X1",       "G28.1",     "G61",   "K1",  "G1 X1E3"}) {
        EXPECT_EQ(LINE_FORBIDDEN, desk.apply(pLine)) << pLine;
    }
    GcodeCheckDesk kestrel(KESTREL);
    for (const char* const pLine :
         {"G20", "G55", "G92 X0", "M8", "M30", "M0", "M1", "M18", "M21"}) {
        EXPECT_EQ(LINE_FORBIDDEN, kestrel.apply(pLine)) << pLine;
    }
}

TEST(GcodeCheck, WordsOfAKindStandOnce)
{
    GcodeCheckDesk desk(GRBL);

    for (const char* const pLine : {"G0 G1 X1", "G90 G91", "G20 G21", "G54 G55", "M3 M5", "M3 M3",
                                    "G4 P1 X1", "G92 X1 G1", "G4 G1 P1"}) {
        EXPECT_EQ(LINE_TWICE, desk.apply(pLine)) << pLine;
    }
    EXPECT_EQ(LINE_WORD, desk.apply("G4"));
    EXPECT_EQ(LINE_WORD, desk.apply("G1 X1 F10 P1"));
}

TEST(GcodeCheck, NothingMovesFromUnknownPosition)
{
    GcodeCheckDesk desk(GRBL);
    desk.m_check.losePosition();

    EXPECT_EQ(LINE_POSITION, desk.apply("G1 X1 F100"));
    EXPECT_EQ(LINE_POSITION, desk.apply("G92 X1"));
    EXPECT_EQ(LINE_GOOD, desk.apply("G90 F100"));
}

TEST(GcodeCheck, DurationIsWayThroughFeedAndRamps)
{
    GuardLimits limits = deskLimits();
    limits.dAcceleration = 10;
    GcodeCheckDesk desk(GRBL, limits);

    ASSERT_EQ(LINE_GOOD, desk.apply("G1 X60 F600")); // 6 s at 10 mm/s, 1 s of ramps
    EXPECT_EQ(7000000, desk.m_s64DurationUs);
    ASSERT_EQ(LINE_GOOD, desk.apply("G4 P2.5"));
    EXPECT_EQ(2500000, desk.m_s64DurationUs);
    ASSERT_EQ(LINE_GOOD, desk.apply("G2 X60 Y0 I-10 J0"));
    EXPECT_NEAR(6.283e6 + 1e6, static_cast<double>(desk.m_s64DurationUs), 1000);
    ASSERT_EQ(LINE_GOOD, desk.apply("M5"));
    EXPECT_EQ(0, desk.m_s64DurationUs);
}

TEST(GcodeCheck, MoveIsThatOfTheLastGoodLine)
{
    GcodeCheckDesk desk(GRBL);
    ASSERT_EQ(LINE_GOOD, desk.apply("G1 X20 Y5 F600 S70"));
    ASSERT_EQ(LINE_GOOD, desk.apply("G2 X0 Y5 I-10 J0"));
    ASSERT_EQ(LINE_BOX, desk.apply("G1 X101"));

    const GcodeMove arc = desk.m_check.getMove();
    EXPECT_EQ(2, arc.nMotion);
    EXPECT_NEAR(20, arc.from[0], 1e-9);
    EXPECT_NEAR(0, arc.to[0], 1e-9);
    EXPECT_NEAR(10, arc.dCentreX, 1e-9);
    EXPECT_NEAR(5, arc.dCentreY, 1e-9);
    EXPECT_NEAR(10, arc.dRadius, 1e-9);
    EXPECT_NEAR(0, arc.dStart, 1e-9);
    EXPECT_NEAR(3.14159265, arc.dTravel, 1e-6);
    EXPECT_NEAR(31.4159265, arc.dLength, 1e-6);
    EXPECT_NEAR(600, arc.dFeed, 1e-9);
    EXPECT_NEAR(70, desk.m_check.getPower(), 1e-9);

    ASSERT_EQ(LINE_GOOD, desk.apply("M5"));
    EXPECT_EQ(0, desk.m_check.getMove().dLength);
}

TEST(GcodeCheck, EndOfProgramTakesModesBack)
{
    GcodeCheckDesk desk(GRBL);
    ASSERT_EQ(LINE_GOOD, desk.apply("G91 G1 X10 F100"));
    ASSERT_EQ(LINE_GOOD, desk.apply("M30"));

    ASSERT_EQ(LINE_GOOD, desk.apply("X10"));

    expectAt(desk, 10, 0, 0);
}

TEST(GcodeCheck, EndOfProgramIsNothingToTheArm)
{
    GcodeCheckDesk desk(KESTREL);
    ASSERT_EQ(LINE_GOOD, desk.apply("G91 G1 X10 F100"));
    ASSERT_EQ(LINE_GOOD, desk.apply("M2"));

    ASSERT_EQ(LINE_GOOD, desk.apply("G1 X10"));

    expectAt(desk, 20, 0, 0);
}

TEST(GcodeCheck, MoveOfItsOwnIsRefusedWhileRelative)
{
    GcodeCheckDesk desk(KESTREL);
    GcodeLine line;
    ASSERT_EQ(LINE_GOOD, parseGcode("G05 X5 F2000", 12, line));

    ASSERT_EQ(LINE_GOOD, desk.apply("G91"));
    EXPECT_EQ(LINE_FORBIDDEN, desk.m_check.applyMove(line, desk.m_s64DurationUs));
    ASSERT_EQ(LINE_GOOD, desk.apply("G90"));
    EXPECT_EQ(LINE_GOOD, desk.m_check.applyMove(line, desk.m_s64DurationUs));
    expectAt(desk, 5, 0, 0);
}
