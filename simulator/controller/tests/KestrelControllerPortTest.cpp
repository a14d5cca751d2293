// The virtual controller's port and pins.
#include <cerrno>
#include <fstream>
#include <string>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "ArmPort.h"
#include "VirtualController.h"

namespace {

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

TEST(KestrelControllerPort, PulledCableHangsUpAndTheNodeGoesAndComesBack)
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

TEST(KestrelControllerPort, StartsUnpluggedOnRequest)
{
    VirtualController controller({"--unplugged"});

    EXPECT_FALSE(exists(controller.getNode()));
}

TEST(KestrelControllerPort, CableIsPulledInMidJob)
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

TEST(KestrelControllerPort, StalledControllerLetsThePipeFillUp)
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

TEST(KestrelControllerPort, OpeningItResetsTheControllerWhenNobodyElseHasItOpen)
{
    VirtualController controller({"--reset-on-open", "--boot-greeting", "--boot-ms", "50"});
    {
        const Port port(controller.getNode());
        EXPECT_EQ("ready\n", port.hear(6));
        port.say("M3 S500\n");
        EXPECT_EQ("ok\n", port.hear(3));
        const Port second(controller.getNode());
        EXPECT_EQ(1, controller.getState("laser")) << "the line is up already";
    }
    EXPECT_EQ(1, controller.getState("laser")) << "nor does closing it";
    EXPECT_EQ(1U, controller.readTexts("dtr").size());

    const Port port(controller.getNode());

    EXPECT_EQ("ready\n", port.hear(6));
    EXPECT_EQ(0, controller.getState("laser"));
    EXPECT_EQ(2U, controller.readTexts("dtr").size());
}

TEST(KestrelControllerPort, ClientThatDoesNotHangUpLeavesTheLineHigh)
{
    VirtualController controller({"--reset-on-open", "--boot-greeting", "--boot-ms", "50"});
    {
        const Port port(controller.getNode());
        EXPECT_EQ("ready\n", port.hear(6));
        termios attr{};
        ASSERT_EQ(0, tcgetattr(port.getFd(), &attr));
        attr.c_cflag &= ~static_cast<tcflag_t>(HUPCL);
        ASSERT_EQ(0, tcsetattr(port.getFd(), TCSANOW, &attr));
    }

    // What is said while the former user's end is looked at may be lost.
    const Port port(controller.getNode());
    EXPECT_TRUE(VirtualController::waitUntil([&] {
        port.say("G21\n");
        return !controller.readTexts("rx").empty();
    }));

    EXPECT_EQ("ok\n", port.hear(3));
    EXPECT_EQ(1U, controller.readTexts("dtr").size());
}

TEST(KestrelControllerPort, WhatIsSaidWhileItBootsIsNotHeard)
{
    VirtualController controller({"--reset-on-open", "--boot-greeting", "--boot-ms", "300"});
    const Port port(controller.getNode());

    port.say("G21\n");
    EXPECT_EQ("ready\n", port.hear(6));
    port.say("G90\n");

    EXPECT_EQ("ok\n", port.hear(3));
    EXPECT_EQ((std::vector<std::string>{"G90"}), controller.readTexts("rx"));
    EXPECT_EQ((std::vector<std::string>{"G21\n"}), controller.readTexts("unheard"));
}

TEST(KestrelControllerPort, GrblGreetsBehindTheResetByOpening)
{
    VirtualController controller(
        {"--language", "grbl", "--setting", "32=1", "--reset-on-open", "--boot-ms", "50"});
    const std::string strGreeting = "\r\nGrbl 1.1h ['$' for help]\r\n";
    {
        const Port port(controller.getNode());
        EXPECT_EQ(strGreeting, port.hear(28));
        port.say("M3 S500\nG1 F300\n");
        EXPECT_EQ("ok\r\nok\r\n", port.hear(8));
    }
    EXPECT_EQ(1, controller.getState("laser")) << "closing it changes nothing, and is seen by now";

    const Port port(controller.getNode());

    EXPECT_EQ(strGreeting, port.hear(28));
    EXPECT_EQ(0, controller.getState("laser"));
}

TEST(KestrelControllerPort, ControllerGreetsBehindTheResetLine)
{
    for (const bool bGrbl : {false, true}) {
        const std::string strPins = scratchPath("gpio");
        std::vector<std::string> vecOption = {"--gpio", strPins, "--boot-ms", "50"};
        vecOption.emplace_back(bGrbl ? "--language" : "--boot-greeting");
        if (bGrbl) {
            vecOption.emplace_back("grbl");
        }
        VirtualController controller(vecOption);
        const std::string strGreeting = bGrbl ? "\r\nGrbl 1.1h ['$' for help]\r\n" : "ready\n";
        std::ofstream(strPins + "/export") << "106";
        std::ofstream(strPins + "/gpio106/direction") << "out";
        EXPECT_TRUE(VirtualController::waitUntil([&] { return !exists(controller.getNode()); }));
        const size_t uBefore = controller.readTexts("garbled").size();

        std::ofstream(strPins + "/gpio106/value") << "1";

        // A new port has another speed than the controller.
        EXPECT_TRUE(VirtualController::waitUntil(
            [&] { return uBefore < controller.readTexts("garbled").size(); }));
        EXPECT_EQ(strGreeting, controller.readTexts("garbled").back());
        EXPECT_EQ(2U, controller.readTexts("plugged").size());
        removePins(strPins);
    }
}

TEST(KestrelControllerPort, WrongSpeedIsGarbage)
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

TEST(KestrelControllerPort, TwoStopBitsAreUnderstood)
{
    VirtualController controller;
    Port port(controller.getNode(), B115200, CS8 | CSTOPB);

    port.say("G21\n");

    EXPECT_EQ("ok\n", port.hear(3));
}

TEST(KestrelControllerPort, PortComesAtTheKernelsOwnSpeed)
{
    VirtualController controller;
    const int nFd = open(controller.getNode().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios attr{};
    EXPECT_EQ(0, tcgetattr(nFd, &attr));

    EXPECT_EQ(static_cast<speed_t>(B9600), cfgetospeed(&attr));
    close(nFd);
}

TEST(KestrelControllerPort, ResetPinTakesThePortAwayAndBringsItBack)
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

TEST(KestrelControllerPort, StoresBeforeTheirTimeAreRefused)
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

TEST(KestrelControllerPort, OutputPinIsLowAtOnce)
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

TEST(KestrelControllerPort, StoresOfOneReadAreToldApart)
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
