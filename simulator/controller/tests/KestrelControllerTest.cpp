// The virtual controller as a program: its port, pins, sockets and files.
#include <cerrno>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "SceneState.h"
#include "VirtualController.h"

namespace {

/** The client's end of the port. */
class Port
{
public:
    explicit Port(const std::string& strNode, speed_t speed = B115200, tcflag_t uFlags = CS8)
        : m_nFd(open(strNode.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
        termios attr{};
        EXPECT_EQ(0, tcgetattr(m_nFd, &attr));
        cfsetspeed(&attr, speed);
        attr.c_cflag = (attr.c_cflag & ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB)) | uFlags;
        EXPECT_EQ(0, tcsetattr(m_nFd, TCSANOW, &attr));
    }
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;
    ~Port()
    {
        close(m_nFd);
    }

    ssize_t say(const std::string& strText) const
    {
        return write(m_nFd, strText.data(), strText.size());
    }

    /** Wait for the next bytes; empty when the port hangs up. */
    std::string hear() const
    {
        pollfd entry{m_nFd, POLLIN, 0};
        poll(&entry, 1, 30000);
        char acBuffer[256] = {0};
        const ssize_t nRead = read(m_nFd, acBuffer, sizeof(acBuffer));
        return std::string(acBuffer, (nRead > 0) ? static_cast<size_t>(nRead) : 0);
    }

    /** Wait for so many bytes. */
    std::string hear(size_t uBytes) const
    {
        std::string strAll;
        std::string strMore;
        while (strAll.size() < uBytes && !(strMore = hear()).empty()) {
            strAll += strMore;
        }
        return strAll;
    }

    int getFd() const
    {
        return m_nFd;
    }

private:
    int m_nFd;
};

/** A name that no other run of the tests uses. */
std::string scratchPath(const std::string& strName)
{
    return testing::TempDir() + "kestrel-" + std::to_string(getpid()) + strName;
}

void removePins(const std::string& strPins)
{
    unlink((strPins + "/export").c_str());
    unlink((strPins + "/gpio106/direction").c_str());
    unlink((strPins + "/gpio106/value").c_str());
    rmdir((strPins + "/gpio106").c_str());
    rmdir(strPins.c_str());
}

bool exists(const std::string& strPath)
{
    return 0 == access(strPath.c_str(), F_OK);
}

} // namespace

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
}

TEST(KestrelController, PulledCableHangsUpAndTheNodeGoesAndComesBack)
{
    VirtualController controller;
    Port port(controller.getNode());

    EXPECT_EQ("ok", controller.command("unplug"));

    EXPECT_FALSE(exists(controller.getNode()));
    EXPECT_EQ("", port.hear());
    EXPECT_EQ(-1, port.say("G21\n"));
    EXPECT_EQ("ok", controller.command("plug"));
    Port next(controller.getNode());
    next.say("G21\n");
    EXPECT_EQ("ok\n", next.hear());
}

TEST(KestrelController, StartsUnpluggedOnRequest)
{
    VirtualController controller({"--unplugged"});

    EXPECT_FALSE(exists(controller.getNode()));
}

TEST(KestrelController, CableIsPulledInMidJob)
{
    VirtualController controller;
    Port port(controller.getNode());
    EXPECT_EQ("ok", controller.command("line 2 unplug"));

    port.say("G21\n");
    EXPECT_EQ("ok\n", port.hear());
    port.say("G21\n");

    EXPECT_EQ("", port.hear());
    EXPECT_FALSE(exists(controller.getNode()));
}

TEST(KestrelController, StalledControllerLetsThePipeFillUp)
{
    VirtualController controller;
    Port port(controller.getNode());
    EXPECT_EQ("ok", controller.command("stall"));

    const std::string strBlock(4096, 'x');
    ssize_t nWritten = 0;
    size_t uTotal = 0;
    do {
        nWritten = port.say(strBlock);
        uTotal += (nWritten > 0) ? static_cast<size_t>(nWritten) : 0;
        ASSERT_LT(uTotal, 1000000U);
    } while (nWritten > 0);
    EXPECT_EQ(EAGAIN, errno);

    EXPECT_EQ("ok", controller.command("unstall"));
    EXPECT_TRUE(VirtualController::waitUntil([&port] { return port.say("\n") > 0; }));
    EXPECT_TRUE(VirtualController::waitUntil(
        [&controller] { return !controller.readTexts("rx").empty(); }));
}

TEST(KestrelController, WrongSpeedIsGarbage)
{
    VirtualController controller;
    Port port(controller.getNode(), B57600);
    port.say("G21\n");
    controller.command("say ok\\n");

    const std::string strHeard = port.hear(3);

    EXPECT_EQ(3U, strHeard.size());
    EXPECT_NE("ok\n", strHeard);
    EXPECT_EQ(0, controller.getState("lines"));
    EXPECT_EQ((std::vector<std::string>{"G21\n", "ok\n"}), controller.readTexts("garbled"));
    Port again(controller.getNode());
    again.say("G21\n");
    EXPECT_EQ("ok\n", again.hear(3));
}

TEST(KestrelController, TwoStopBitsAreUnderstood)
{
    VirtualController controller;
    Port port(controller.getNode(), B115200, CS8 | CSTOPB);

    port.say("G21\n");

    EXPECT_EQ("ok\n", port.hear(3));
}

TEST(KestrelController, PortComesAtTheKernelsOwnSpeed)
{
    VirtualController controller;
    const int nFd = open(controller.getNode().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios attr{};
    EXPECT_EQ(0, tcgetattr(nFd, &attr));

    EXPECT_EQ(static_cast<speed_t>(B9600), cfgetospeed(&attr));
    close(nFd);
}

TEST(KestrelController, ResetPinTakesThePortAwayAndBringsItBack)
{
    const std::string strPins = scratchPath("gpio");
    VirtualController controller({"--gpio", strPins, "--boot-ms", "50"});
    EXPECT_FALSE(exists(strPins + "/gpio106"));

    // Each store has been carried out when its writer goes on, as the kernel's have.
    std::ofstream(strPins + "/export") << "106";
    EXPECT_TRUE(exists(strPins + "/gpio106/value"));
    std::ofstream(strPins + "/gpio106/direction") << "out";
    std::ofstream(strPins + "/gpio106/value").write("1\0", 2);
    std::ofstream(strPins + "/gpio106/value").write("0\0", 2);
    EXPECT_TRUE(
        VirtualController::waitUntil([&] { return 4 == controller.readTexts("gpio").size(); }));
    EXPECT_FALSE(exists(controller.getNode()));
    std::ofstream(strPins + "/gpio106/value").write("1\0", 2);
    EXPECT_TRUE(VirtualController::waitUntil([&] { return exists(controller.getNode()); }));

    const std::vector<std::string> vecExpected = {"export 106", "gpio106/direction out",
                                                  "gpio106/value 1", "gpio106/value 0",
                                                  "gpio106/value 1"};
    EXPECT_EQ(vecExpected, controller.readTexts("gpio"));
    removePins(strPins);
}

TEST(KestrelController, StoresBeforeTheirTimeAreRefused)
{
    const std::string strPins = scratchPath("gpio");
    VirtualController controller({"--gpio", strPins});

    std::ofstream(strPins + "/export") << "106";
    std::ofstream(strPins + "/gpio106/value") << "0"; // still an input
    EXPECT_TRUE(VirtualController::waitUntil(
        [&] { return 1 == controller.readTexts("gpio-refused").size(); }));

    EXPECT_EQ((std::vector<std::string>{"gpio106/value 0"}), controller.readTexts("gpio-refused"));
    EXPECT_TRUE(exists(controller.getNode()));
    removePins(strPins);
}

TEST(KestrelController, OutputPinIsLowAtOnce)
{
    const std::string strPins = scratchPath("gpio");
    VirtualController controller({"--gpio", strPins, "--boot-ms", "50"});

    std::ofstream(strPins + "/export") << "106";
    std::ofstream(strPins + "/gpio106/direction") << "out";

    EXPECT_TRUE(VirtualController::waitUntil([&] { return !exists(controller.getNode()); }));
    std::ofstream(strPins + "/gpio106/value") << "1";
    EXPECT_TRUE(VirtualController::waitUntil([&] { return exists(controller.getNode()); }));
    removePins(strPins);
}

TEST(KestrelController, StoresOfOneReadAreToldApart)
{
    const std::string strPins = scratchPath("gpio");
    VirtualController controller({"--gpio", strPins});

    std::ofstream(strPins + "/export") << "106";
    std::ofstream(strPins + "/gpio106/direction") << "out";
    std::ofstream(strPins + "/gpio106/value")
        .write("1\0"
               "0\0"
               "1\0",
               6);
    EXPECT_TRUE(
        VirtualController::waitUntil([&] { return 5 == controller.readTexts("gpio").size(); }));

    const std::vector<std::string> vecExpected = {"export 106", "gpio106/direction out",
                                                  "gpio106/value 1", "gpio106/value 0",
                                                  "gpio106/value 1"};
    EXPECT_EQ(vecExpected, controller.readTexts("gpio"));
    removePins(strPins);
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
