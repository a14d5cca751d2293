// The "$" lines of Grbl 1.1.
#include <gtest/gtest.h>

#include "GrblDialogue.h"

class GrblSystemCommandsDialogue : public GrblDialogue
{
};

TEST_F(GrblSystemCommandsDialogue, JogIsAStateOfItsOwnAndCanBeCancelled)
{
    EXPECT_EQ("error:22\r\n", say("$J=G91 X10\n"));
    EXPECT_EQ("error:16\r\n", say("$J=G1 X10 F100\n"));
    EXPECT_EQ("ok\r\n", say("$J=G91 X50 F300\n"));
    EXPECT_TRUE(contains(say("?"), "<Jog|"));
    EXPECT_EQ("error:9\r\n", say("G0 X1\n"));
    wait(1000 * MS);

    say("\x85", 1000 * MS);

    EXPECT_TRUE(contains(say("?"), "<Idle|"));
    EXPECT_GT(x(), 1);
    EXPECT_LT(x(), 20);
    EXPECT_TRUE(contains(say("$G\n"), "G90")); // nothing modal was touched
}

TEST_F(GrblSystemCommandsDialogue, SettingsAreCheckedAndKept)
{
    EXPECT_EQ("ok\r\n", say("$110=600.5\n"));
    EXPECT_EQ("error:3\r\n", say("$99=1\n"));
    EXPECT_EQ("error:4\r\n", say("$110=-1\n"));
    EXPECT_EQ("error:2\r\n", say("$110=x\n"));
    EXPECT_EQ("error:6\r\n", say("$0=2\n"));
    EXPECT_EQ("error:10\r\n", say("$20=1\n"));
    say("\x18", 100 * MS);
    EXPECT_TRUE(contains(say("$$\n", 50 * MS), "$110=600.500\r\n"));
    say("G1 X100 F100\n");
    EXPECT_EQ("error:8\r\n", say("$110=500\n"));
    EXPECT_EQ("error:8\r\n", say("$$\n"));
}

TEST_F(GrblSystemCommandsDialogue, DollarLines)
{
    EXPECT_EQ("[VER:1.1h.20190830:]\r\n[OPT:V,15,128]\r\nok\r\n", say("$I\n"));
    EXPECT_EQ("$N0=\r\n$N1=\r\nok\r\n", say("$N\n"));
    EXPECT_EQ("ok\r\n", say("$N0=G91\n"));
    EXPECT_EQ("\r\nGrbl 1.1h ['$' for help]\r\n>G91:ok\r\n", say("\x18", 100 * MS));
    EXPECT_TRUE(contains(say("$G\n"), " G91 "));
    say("G90\n");
    EXPECT_EQ("ok\r\n", say("G10 L2 P1 X5\n"));
    EXPECT_TRUE(contains(say("$#\n", 50 * MS), "[G54:5.000,0.000,0.000]\r\n[G55:0.000"));
    EXPECT_TRUE(contains(say("?"), "|WCO:5.000,0.000,0.000"));
    EXPECT_EQ("[MSG:Enabled]\r\nok\r\n", say("$C\n"));
    EXPECT_EQ("ok\r\n", say("G0 X100\n"));
    EXPECT_TRUE(contains(say("?"), "<Check|MPos:0.000"));
    EXPECT_EQ("[MSG:Disabled]\r\nok\r\n", say("$C\n", 20 * MS));
    EXPECT_TRUE(contains(wait(100 * MS), "Grbl 1.1h"));
}
