// The override bytes of Grbl 1.1.
#include <gtest/gtest.h>

#include "GrblDialogue.h"

class GrblOverridesDialogue : public GrblDialogue
{
};

TEST_F(GrblOverridesDialogue, OverridesActAndForeignBytesAreDropped)
{
    say("?");
    say("?");
    EXPECT_EQ("", say("\xc2\x91\xff\x80"));
    EXPECT_TRUE(contains(say("?"), "|Ov:110,100,100"));
    say("\x92\x92\x94\x97\x9b");
    EXPECT_TRUE(contains(say("?"), "|Ov:89,25,90"));
    say("\x90\x95\x99");
    EXPECT_TRUE(contains(say("?"), "|Ov:100,100,100"));
    EXPECT_EQ("ok\r\n", say("G2\xc2\x91"
                            "1\n"));
}

TEST_F(GrblOverridesDialogue, FeedOverrideChangesTheSpeedAndSpindleOverrideThePower)
{
    burn("M3", 500);

    say("\x91\x9a", 500 * MS);

    EXPECT_TRUE(contains(say("?"), "|FS:330,550"));
}
