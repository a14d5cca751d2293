// What lines of Grbl 1.1 have the virtual controller do.
#include <cmath>

#include <gtest/gtest.h>

#include "GrblDialogue.h"

class GrblInterpreterDialogue : public GrblDialogue
{
};

TEST_F(GrblInterpreterDialogue, RefusedLinesSayWhy)
{
    EXPECT_EQ("error:1\r\n", say("1\n"));
    EXPECT_EQ("error:2\r\n", say("HELLO\n"));
    EXPECT_EQ("error:2\r\n", say("G1 X\n"));
    EXPECT_EQ("error:3\r\n", say("$1\n"));
    EXPECT_EQ("error:3\r\n", say("$FOO\n"));
    EXPECT_EQ("error:5\r\n", say("$H\n"));
    EXPECT_EQ("error:20\r\n", say("G99\n"));
    EXPECT_EQ("error:22\r\n", say("G1 X1\n"));
    EXPECT_EQ("error:4\r\n", say("F-1\n"));
    EXPECT_EQ("error:21\r\n", say("G0 G1 X1\n"));
    EXPECT_EQ("error:25\r\n", say("G0 X1 X2\n"));
    EXPECT_EQ("error:36\r\n", say("G0 X1 R5\n"));
    EXPECT_EQ("error:28\r\n", say("G4\n"));
    EXPECT_EQ("error:35\r\n", say("G2 X1 F100\n"));
    EXPECT_EQ("error:33\r\n", say("G2 X1 I5 F100\n"));
    EXPECT_EQ("error:34\r\n", say("G2 X10 R1 F100\n"));
}

TEST_F(GrblInterpreterDialogue, RefusedLineDoesNothing)
{
    EXPECT_EQ("error:36\r\n", say("G91 M3 S500 F100 G1 X5 R1\n"));

    wait(1000 * MS);
    EXPECT_DOUBLE_EQ(0, x());
    EXPECT_EQ("[GC:G0 G54 G17 G21 G90 G94 M5 M9 T0 F0 S0]\r\nok\r\n", say("$G\n"));
}

TEST_F(GrblInterpreterDialogue, PausedProgramGoesOnAndEndedProgramIsDark)
{
    prepare(500);
    say("M3 S500\nG1 X1 F300\nM0\nX2\nM2\n");
    wait(2000 * MS);
    EXPECT_TRUE(contains(say("?"), "<Hold:0|"));
    EXPECT_FALSE(beam().bOn);

    EXPECT_TRUE(contains(say("~", 2000 * MS), "[MSG:Pgm End]"));

    EXPECT_FALSE(beam().bOn);
    EXPECT_TRUE(contains(say("$G\n"), "M5"));
}

TEST_F(GrblInterpreterDialogue, WholeCircleGoesAllTheWayWhateverTheSignOfZero)
{
    prepare(500);

    for (const char* const pCircle :
         {"G2 X0 I-5 J0 F300\n", "G2 X0 I5 J0\n", "G3 X0 I-5 J0\n", "G3 X0 I5 J0\n"}) {
        say(pCircle);
        wait(3000 * MS); // half of it takes 3.1 s at 5 mm/s
        EXPECT_NEAR(10, std::fabs(x()), 1) << pCircle;
        wait(4000 * MS);
        EXPECT_NEAR(0, x(), 1e-6) << pCircle;
    }
}

TEST_F(GrblInterpreterDialogue, ArcEndsWhereItShouldOnItsCircle)
{
    prepare(500);
    say("G2 X10 Y10 I10 F3000\n", 1);
    wait(20 * MS);
    while (beam().bMoving) {
        wait(20 * MS);
        const Point at = m_controller.getPosition();
        EXPECT_NEAR(10, std::hypot(at[0] - 10, at[1]), 0.01);
    }

    EXPECT_NEAR(10, m_controller.getPosition()[0], 1e-6);
    EXPECT_NEAR(10, m_controller.getPosition()[1], 1e-6);
}
