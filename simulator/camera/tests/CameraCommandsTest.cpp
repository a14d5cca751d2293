// Commands: what is understood, and what the journal keeps of it.
#include "CameraCommands.h"

#include <gtest/gtest.h>

#include "ScratchFolder.h"

namespace {

/** A camera without programs and pictures, to be commanded. */
struct Board
{
    ScratchFolder folder;
    const std::string strDir = folder.path().string();
    CameraJournal journal{strDir + "/journal"};
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
                              "workpiece",
                              "workpiece old",
                              "timeperframe",
                              "timeperframe maybe",
                              "stat gone",
                              "capabilities tea",
                              "list normal 3",
                              "list tea",
                              "stat",
                              "freeze now",
                              "unplug slowly now",
                              "unplug slowly 10 20",
                              "broken 0",
                              "broken 1 2",
                              "replug video",
                              "replug event6 video1",
                              "replug 1",
                              "journal",
                              "journal burn"}) {
        EXPECT_EQ("error:", board.commands.run(pLine).substr(0, 6)) << pLine;
    }
}

TEST(CameraCommands, SpotIsWrittenToTheScene)
{
    Board board;

    EXPECT_EQ("ok", board.commands.run("spot 1.5 -2.25 0.001 on"));

    EXPECT_EQ(1500, board.scene.getState().s32XMicrometre);
    EXPECT_EQ(-2250, board.scene.getState().s32YMicrometre);
    EXPECT_EQ(1, board.scene.getState().s32ZMicrometre);
    EXPECT_EQ(1u, board.scene.getState().u32LaserOn);
}

TEST(CameraCommands, NewWorkpieceIsUnburnt)
{
    Board board;
    BurntState& burnt = board.scene.getBurnt();
    EXPECT_EQ("ok", board.commands.run("workpiece new"));
    EXPECT_EQ(0u, burnt.u32Changes);
    burnt.afShare[7] = 0.5;
    burnt.u32Changes = 3;

    EXPECT_EQ("ok", board.commands.run("workpiece new"));

    EXPECT_EQ(0, burnt.afShare[7]);
    EXPECT_EQ(4u, burnt.u32Changes); // so that whoever draws it notices
}

TEST(CameraCommands, StatusTellsRateAndPlug)
{
    Board board;
    EXPECT_EQ(
        "ok plugged=1 streaming=0 frozen=0 opens=0 frame=0 fps=30.00 format=MJPG size=640x480",
        board.commands.run("status"));

    EXPECT_EQ("ok", board.commands.run("fps 200"));
    EXPECT_EQ("ok", board.commands.run("freeze"));
    EXPECT_EQ("ok", board.commands.run("unplug"));

    EXPECT_EQ(
        "ok plugged=0 streaming=0 frozen=1 opens=0 frame=0 fps=200.00 format=MJPG size=640x480",
        board.commands.run("status"));
    EXPECT_EQ("ok", board.commands.run("clear"));
    EXPECT_EQ(
        "ok plugged=0 streaming=0 frozen=0 opens=0 frame=0 fps=30.00 format=MJPG size=640x480",
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
