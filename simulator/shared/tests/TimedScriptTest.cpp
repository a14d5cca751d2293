// Scripts: which lines are understood, and when they are due.
#include "TimedScript.h"

#include <gtest/gtest.h>

#include "ScratchFolder.h"

TEST(TimedScript, LinesComeAtTheirTimesInOrder)
{
    ScratchFolder folder;
    folder.write("script", "# comment\n\n  2.5 replug\n1 unplug\n1 freeze now\n");
    TimedScript script;
    std::string strError;
    ASSERT_TRUE(script.load(folder.path() / "script", nullptr, strError));

    EXPECT_EQ(1, script.getNext());
    EXPECT_EQ("", script.takeDue(0.99));
    EXPECT_EQ("unplug", script.takeDue(1.2));
    EXPECT_EQ("freeze now", script.takeDue(1.2));
    EXPECT_EQ("", script.takeDue(1.2));
    EXPECT_EQ("replug", script.takeDue(3));
    EXPECT_EQ("", script.takeDue(100));
    EXPECT_LT(script.getNext(), 0);
}

TEST(TimedScript, BrokenFilesAreRefused)
{
    ScratchFolder folder;
    for (const char* pText : {"unplug\n", "-1 unplug\n", "1\n", "nan unplug\n", "1e7 unplug\n"}) {
        folder.write("script", pText);
        TimedScript script;
        std::string strError;
        EXPECT_FALSE(script.load(folder.path() / "script", nullptr, strError)) << pText;
        EXPECT_NE(std::string::npos, strError.find("/script:1: not understood: ")) << strError;
    }
    TimedScript script;
    std::string strError;
    EXPECT_FALSE(script.load(folder.path() / "missing", nullptr, strError));
    EXPECT_NE(std::string::npos, strError.find("/missing: No such file")) << strError;
}

TEST(TimedScript, LinesWithoutATimeGoToWhoTakesThem)
{
    ScratchFolder folder;
    folder.write("script", "line 3 unplug\n1 plug\n");
    TimedScript script;
    std::string strError;
    std::string strUntimed;

    EXPECT_TRUE(script.load(
        folder.path() / "script",
        [&strUntimed](const std::string& strLine) {
            strUntimed = strLine;
            return true;
        },
        strError));

    EXPECT_EQ("line 3 unplug", strUntimed);
    EXPECT_EQ(1, script.getNext());
}

TEST(TimedScript, AddedCommandComesBehindThoseOfItsTime)
{
    TimedScript script;
    script.add(2, "second");
    script.add(1, "first");
    script.add(2, "third");
    EXPECT_EQ("first", script.takeDue(1));

    script.add(0.5, "late");

    EXPECT_EQ("late", script.takeDue(1));
    EXPECT_EQ("second", script.takeDue(2));
    EXPECT_EQ("third", script.takeDue(2));
}
