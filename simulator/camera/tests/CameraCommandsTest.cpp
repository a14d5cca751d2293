// Commands and scripts: what is understood, and when it is done.
#include "CameraCommands.h"

#include <gtest/gtest.h>

#include "ScratchFolder.h"
#include "TimedScript.h"

namespace {

/** A camera without programs and pictures, to be commanded. */
struct Board
{
    ScratchFolder folder;
    const std::string strDir = folder.path().string();
    Journal journal{strDir + "/journal"};
    FrameLog frameLog{strDir, 0};
    KernelFiles kernelFiles{strDir};
    SceneFile scene{strDir + "/scene"};
    UvcCamera camera{strDir, journal, frameLog};
    CameraCommands commands{camera, kernelFiles, scene, journal};
};

} // namespace

TEST(CameraCommands, WrongWordsAreRefused)
{
    Board board;

    for (const char* pLine : {"",
                              "dance",
                              "unplug now",
                              "unplug after",
                              "unplug after tea",
                              "fail",
                              "fail DQBUF",
                              "fail TEA EIO",

                              "fail DQBUF EWHAT",
                              "fail DQBUF EIO 0",
                              "fail DQBUF EIO 1 skip",
                              "fail DQBUF EIO 1 jump 2",
                              "bytes",
                              "bytes -1",
                              "bytes 1x",
                              "bytes 4294967296",
                              "grant 0",
                              "grant 33",
                              "index",
                              "coerce 0",
                              "coerce 201",
                              "fps 0",
                              "fps 201",
                              "fps 10 2",
                              "list",
                              "list event",
                              "spot 1 2 3",
                              "spot 1 2 x on",
                              "spot 1 2 3 maybe",
                              "spot 9e9 0 0 on",
                              "timeperframe",
                              "timeperframe maybe",
                              "stat gone",
                              "capabilities tea",
                              "list normal 3",
                              "list tea",
                              "stat",
                              "freeze now",
                              "journal",
                              "journal burn"}) {
        EXPECT_EQ("error:", board.commands.run(pLine).substr(0, 6)) << pLine;
    }
}

TEST(CameraCommands, SpotIsWrittenToTheScene)
{
    Board board;

    EXPECT_EQ("ok", board.commands.run("spot 1.5 -2.25 0.001 on"));

    EXPECT_EQ(1500, board.scene.state().s32XMicrometre);
    EXPECT_EQ(-2250, board.scene.state().s32YMicrometre);
    EXPECT_EQ(1, board.scene.state().s32ZMicrometre);
    EXPECT_EQ(1u, board.scene.state().u32LaserOn);
}

TEST(CameraCommands, StatusTellsRateAndPlug)
{
    Board board;
    EXPECT_EQ(
        "ok plugged=1 streaming=0 frozen=0 opens=0 frame=0 fps=25.00 format=MJPG size=640x480",
        board.commands.run("status"));

    EXPECT_EQ("ok", board.commands.run("fps 200"));
    EXPECT_EQ("ok", board.commands.run("freeze"));
    EXPECT_EQ("ok", board.commands.run("unplug"));

    EXPECT_EQ(
        "ok plugged=0 streaming=0 frozen=1 opens=0 frame=0 fps=200.00 format=MJPG size=640x480",
        board.commands.run("status"));
    EXPECT_EQ("ok", board.commands.run("clear"));
    EXPECT_EQ(
        "ok plugged=0 streaming=0 frozen=0 opens=0 frame=0 fps=25.00 format=MJPG size=640x480",
        board.commands.run("status"));
}

TEST(CameraCommands, AreNotedInTheJournalUntilItIsCleared)
{
    Board board;

    board.commands.run("mark here");
    EXPECT_NE(std::string::npos, board.folder.read("journal").find(" 0 0 # mark here\n"));
    board.commands.run("status");
    EXPECT_EQ(std::string::npos, board.folder.read("journal").find("status"));

    board.commands.run("journal clear");
    EXPECT_EQ("", board.folder.read("journal"));
    board.commands.run("mark there");
    EXPECT_NE(std::string::npos, board.folder.read("journal").find(" 0 0 # mark there\n"));
}

TEST(Journal, StartsOverWhenItIsFull)
{
    ScratchFolder folder;
    Journal journal((folder.path() / "journal").string(), 100);
    for (int i = 0; i < 10; i++) {
        journal.note("this line has forty characters, or so");
    }

    const std::string strText = folder.read("journal");

    EXPECT_LT(strText.size(), 300u);
    EXPECT_NE(std::string::npos, strText.find(" 0 0 # started over\n"));
    EXPECT_EQ('\n', strText.back());
}

TEST(TimedScript, LinesComeAtTheirTimesInOrder)
{
    ScratchFolder folder;
    folder.write("script", "# comment\n\n  2.5 replug\n1 unplug\n1 freeze now\n");
    TimedScript script;
    ASSERT_TRUE(script.load((folder.path() / "script").string()));

    EXPECT_EQ(1, script.next());
    EXPECT_EQ("", script.due(0.99));
    EXPECT_EQ("unplug", script.due(1.2));
    EXPECT_EQ("freeze now", script.due(1.2));
    EXPECT_EQ("", script.due(1.2));
    EXPECT_EQ("replug", script.due(3));
    EXPECT_EQ("", script.due(100));
    EXPECT_LT(script.next(), 0);
}

TEST(TimedScript, BrokenFilesAreRefused)
{
    ScratchFolder folder;
    for (const char* pText : {"unplug\n", "-1 unplug\n", "1\n", "nan unplug\n"}) {
        folder.write("script", pText);
        TimedScript script;
        EXPECT_FALSE(script.load((folder.path() / "script").string())) << pText;
    }
    TimedScript script;
    EXPECT_FALSE(script.load((folder.path() / "missing").string()));
}
