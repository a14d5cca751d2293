// The virtual controller as a program: its port, pins, sockets and files.
#include <fstream>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ArmPort.h"
#include "SceneState.h"
#include "VirtualController.h"

TEST(KestrelController, AnswersLinesAndRecordsThem)
{
    VirtualController controller;
    Port port(controller.getNode());

    port.say("$H\n");

    EXPECT_EQ("ok\ndone\n", port.hear(8)); // the wire's times show them apart
    std::vector<VirtualController::Record> vecRecord;
    for (const VirtualController::Record& record : controller.readJournal()) {
        if ("beam" != record.strKind) {
            vecRecord.push_back(record);
        }
    }
    ASSERT_EQ(4U, vecRecord.size());
    EXPECT_EQ("plugged", vecRecord[0].strKind);
    EXPECT_EQ("rx", vecRecord[1].strKind);
    EXPECT_EQ("$H", vecRecord[1].strText);
    EXPECT_EQ("tx", vecRecord[2].strKind);
    EXPECT_EQ("ok\n", vecRecord[2].strText);
    EXPECT_EQ("done\n", vecRecord[3].strText);
    EXPECT_LE(vecRecord[2].dSeconds + 0.1, vecRecord[3].dSeconds + 1e-6); // the settling time
}

TEST(KestrelController, ReceivedBytesAreKeptAsTheyCame)
{
    VirtualController controller;
    Port port(controller.getNode());
    const std::string strBytes = std::string("a\\\tb\r\n\n\x01\xff", 9) + std::string("\0c\n", 3);

    port.say(strBytes);

    EXPECT_EQ(strBytes, controller.readReceivedBytes());
    port.say("G1 X\t");
    EXPECT_EQ(strBytes + "G1 X\t", controller.readReceivedBytes());
    EXPECT_EQ("input=G1 X\\t", controller.command("input"));
}

TEST(KestrelController, MovesTheSceneSpotAgainstItsAxes)
{
    VirtualController controller({"--position", "1,2,3", "--focus-z", "5", "--speed-up", "100"});
    const int nFd = open(controller.getScenePath().c_str(), O_RDWR | O_CLOEXEC);
    const auto* const pScene = static_cast<const SceneState*>(
        mmap(nullptr, sizeof(SceneState), PROT_READ, MAP_SHARED, nFd, 0));
    ASSERT_NE(MAP_FAILED, static_cast<const void*>(pScene));
    EXPECT_EQ(-1000, pScene->s32XMicrometre);
    EXPECT_EQ(-2000, pScene->s32YMicrometre);
    EXPECT_EQ(2000, pScene->s32ZMicrometre);
    EXPECT_EQ(1U, pScene->u32LaserOn);
    Port port(controller.getNode());

    port.say("G05 X-12.5 Y3 Z0.25 F2000\nM18 S0\n");

    EXPECT_EQ("ok\ndone\nok\n", port.hear(11));
    EXPECT_EQ(0U, pScene->u32LaserOn); // at once: the answers come after it
    EXPECT_EQ(12500, pScene->s32XMicrometre);
    EXPECT_EQ(-3000, pScene->s32YMicrometre);
    EXPECT_EQ(4750, pScene->s32ZMicrometre);
    EXPECT_EQ((std::vector<std::string>{"ok\n", "done\nok\n"}), controller.readTexts("tx"));
    controller.command("focus-z -1.5"); // another workpiece
    EXPECT_EQ(-1750, pScene->s32ZMicrometre);

    controller.command("state");
    auto* const pWritable = static_cast<SceneState*>(
        mmap(nullptr, sizeof(SceneState), PROT_READ | PROT_WRITE, MAP_SHARED, nFd, 0));
    pWritable->s32XMicrometre = 7; // placed by someone else while the arm rests
    controller.command("state");
    EXPECT_EQ(7, pScene->s32XMicrometre);
    port.say("M3 S500\n");
    EXPECT_EQ("ok\n", port.hear(3));
    EXPECT_EQ(2U, pScene->u32LaserOn); // the beam, though the pilot spot is off
    port.say("M5\n");
    EXPECT_EQ("ok\n", port.hear(3));
    EXPECT_EQ(0U, pScene->u32LaserOn);
    munmap(pWritable, sizeof(SceneState));
    close(nFd);
    munmap(const_cast<SceneState*>(pScene), sizeof(SceneState));
}

TEST(KestrelController, KeepsAFirmwareImage)
{
    VirtualController controller({"--image-quiet-ms", "5000"});
    Port port(controller.getNode());
    const std::string strImage = std::string("KFW1\x06\0\0\0", 8) + "abc\ndef";

    port.say("M21\n");
    EXPECT_EQ("ok\n", port.hear());
    port.say(strImage.substr(0, 5));
    port.say(strImage.substr(5, 9));
    port.say("G21\n");

    EXPECT_EQ("ok\n", port.hear());
    const std::vector<std::string> vecExpected = {"14 bytes complete"};
    EXPECT_EQ(vecExpected, controller.readTexts("image"));
    std::ifstream file(controller.getImagePath(), std::ios::binary);
    const std::string strKept{std::istreambuf_iterator<char>(file), {}};
    EXPECT_EQ(strImage.substr(0, 14), strKept);
}

TEST(KestrelController, ScriptIsCarriedOutAtItsTimes)
{
    const std::string strScript = scratchPath("script");
    std::ofstream(strScript) << "# nothing for a while\n0.2 unplug\nline 1 refuse 5\n0.4 plug\n";
    VirtualController controller({"--script", strScript});

    EXPECT_TRUE(VirtualController::waitUntil(
        [&controller] { return 2 == controller.readTexts("plugged").size(); }));

    Port port(controller.getNode());
    port.say("G21\n");
    EXPECT_EQ("error:5\n", port.hear());
    const std::vector<std::string> vecExpected = {"unplug", "plug", "refuse 5"};
    EXPECT_EQ(vecExpected, controller.readTexts("command"));
    unlink(strScript.c_str());
}

TEST(KestrelController, ScriptWithNonsenseEndsIt)
{
    const std::string strScript = scratchPath("script");
    std::ofstream(strScript) << "soon unplug\n";

    EXPECT_THROW(VirtualController controller({"--script", strScript}), std::runtime_error);
    unlink(strScript.c_str());
}

TEST(KestrelController, BeamCanBeAskedForAndIsRecorded)
{
    VirtualController controller({"--speed-up", "10"});
    Port port(controller.getNode());

    port.say("M3 S250\nG1 X10 F6000\nM5\n");

    EXPECT_TRUE(
        VirtualController::waitUntil([&] { return 3 == controller.readTexts("beam").size(); }));
    const std::vector<std::string> vecExpected = {
        "on=1 power=250 moving=0", "on=1 power=250 moving=1", "on=0 power=250 moving=0"};
    EXPECT_EQ(vecExpected, controller.readTexts("beam"));
    const std::string strBeam = controller.command("beam");
    EXPECT_EQ(0U, strBeam.find("on=0 power=250 moving=0 since=")) << strBeam;
}

TEST(KestrelController, HabitsAreOptions)
{
    VirtualController controller({"--answer-empty-lines", "--power-up-laser-on", "--pilot-off"});
    Port port(controller.getNode());

    port.say("G21\n\n");

    EXPECT_EQ("ok\nok\n", port.hear(6));
    EXPECT_EQ(1, controller.getState("laser"));
    EXPECT_EQ(0, controller.getState("pilot"));
}

TEST(KestrelController, SpeaksGrbl)
{
    VirtualController controller({"--language", "grbl", "--setting", "32=1"});
    Port port(controller.getNode());
    (void)port.hear(28); // the greeting; garbage when it came before the port had its speed

    port.say("M3 S500\nG1 F300\n");
    EXPECT_EQ("ok\r\nok\r\n", port.hear(8));
    EXPECT_EQ(0U, controller.command("beam").find("on=1 power=500 moving=0 "));
    port.say("\x18");

    EXPECT_EQ("\r\nGrbl 1.1h ['$' for help]\r\n", port.hear(28));
    EXPECT_EQ((std::vector<std::string>{"on=1 power=500 moving=0", "on=0 power=0 moving=0"}),
              controller.readTexts("beam"));
}

TEST(KestrelController, RefusedSettingEndsIt)
{
    EXPECT_THROW(VirtualController controller({"--language", "grbl", "--setting", "99=1"}),
                 std::runtime_error);
}

TEST(KestrelController, NonsenseIsAnsweredSo)
{
    VirtualController controller;

    EXPECT_EQ("error: not understood: fly", controller.command("fly"));
}
