// Finding and opening the controller's serial port, and the calls that reach the print service
// through the system module.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Arm.h"
#include "BoardEnvironment.h"
#include "CallJournal.h"
#include "ControllerPort.h"
#include "Descriptors.h"
#include "Eventually.h"
#include "LibraryCall.h"
#include "PrintService.h"
#include "SystemModule.h"
#include "Time.h"
#include "VirtualController.h"

static bool g_bRefuseSpeed = false;

/**
 * In place of the C library's: a device that takes the controller's speed and says that it did not,
 * so that what is sent afterwards can still be read.
 */
extern "C" int tcsetattr(int nFd, int nAction, const termios* pAttr) LIBRARY_CALL
{
    static const auto s_pReal =
        reinterpret_cast<int (*)(int, int, const termios*)>(dlsym(RTLD_NEXT, "tcsetattr"));
    const int nResult = s_pReal(nFd, nAction, pAttr);
    if (g_bRefuseSpeed && B115200 == cfgetospeed(pAttr)) {
        errno = EIO;
        return -1;
    }
    return nResult;
}

namespace {

[[maybe_unused]] const testing::Environment* const ENVIRONMENT =
    testing::AddGlobalTestEnvironment(new BoardEnvironment);

using Texts = std::vector<std::string>;

size_t countParts(const std::string& strText, const std::string& strPart)
{
    size_t uCount = 0;
    for (size_t uPos = strText.find(strPart); std::string::npos != uPos;
         uPos = strText.find(strPart, uPos + 1)) {
        ++uCount;
    }
    return uCount;
}

/** What openSerial printed; repeated empty look-ups, a matter of scheduling, count as one. */
std::string looksAsOne(std::string strText)
{
    size_t uPos = 0;
    while (std::string::npos != (uPos = strText.find("[][]"))) {
        strText.erase(uPos, 2);
    }
    return strText;
}

/** Descriptors of this process that are open on the controller's port, and on no other terminal. */
size_t countPorts()
{
    struct stat port
    {
    };
    if (0 != stat("/dev/ttyACM0", &port) && 0 != stat("/dev/ttyACM7", &port)) {
        return 0;
    }
    size_t uCount = 0;
    for (const auto& [nFd, strTarget] : openDescriptors()) {
        struct stat opened
        {
        };
        const bool bOpen = 0 == fstat(nFd, &opened);
        uCount += (bOpen && S_ISCHR(opened.st_mode) && port.st_rdev == opened.st_rdev &&
                   port.st_dev == opened.st_dev)
                      ? 1
                      : 0;
    }
    return uCount;
}

} // namespace

TEST(SystemModuleSerial, IsOpenedAfterTheReset)
{
    Arm arm({"--boot-ms", "1500"});

    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());

    EXPECT_EQ("you are reset the STM32\n[][/dev/ttyACM0]", looksAsOne(arm.output()));
    EXPECT_EQ(1U, arm.m_controller.readTexts("unplugged").size());
    EXPECT_EQ(0, arm.m_module.sendPrintCommand("M5", 2));
    EXPECT_EQ("M5\n", arm.m_controller.readReceivedBytes());
}

TEST(SystemModuleSerial, ControllerSeesTheResetPulse)
{
    // The controller may be late for a low edge, but not each time.
    double dLongest = 0;
    for (int nTry = 0; nTry < 3 && dLongest < 0.3; ++nTry) {
        Arm arm;

        EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());

        std::vector<VirtualController::Record> vecValue;
        for (const VirtualController::Record& record : arm.m_controller.readJournal()) {
            if ("gpio" == record.strKind && 0 == record.strText.compare(0, 13, "gpio106/value")) {
                vecValue.push_back(record);
            }
        }
        ASSERT_EQ(3U, vecValue.size());
        EXPECT_EQ("gpio106/value 1", vecValue[0].strText);
        EXPECT_EQ("gpio106/value 0", vecValue[1].strText);
        EXPECT_EQ("gpio106/value 1", vecValue[2].strText);
        dLongest = std::max(dLongest, vecValue[2].dSeconds - vecValue[1].dSeconds);
    }
    EXPECT_LE(0.3, dLongest);
}

TEST(SystemModuleSerial, HasTheControllersLineParameters)
{
    Arm arm;

    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());

    const int nFd = open("/dev/ttyACM0", O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios attr{};
    EXPECT_EQ(0, tcgetattr(nFd, &attr));
    close(nFd);
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&attr));
    EXPECT_EQ(static_cast<tcflag_t>(CS8), attr.c_cflag & (CSIZE | CSTOPB | PARENB));
    EXPECT_EQ(0U, attr.c_lflag & (ICANON | ECHO));
}

TEST(SystemModuleSerial, RefusedLineParametersFail)
{
    Arm arm({"--boot-ms", "10"});
    g_bRefuseSpeed = true;
    testing::internal::CaptureStderr();

    EXPECT_EQ(RET_FAILED, arm.m_module.openSerial());

    g_bRefuseSpeed = false;
    const std::string strError = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos,
              strError.find(std::string("tcsetattr fd1: ") + strerror(EIO) + "\n"))
        << strError;
    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial()); // what the failure left open is no obstacle
    EXPECT_EQ(1U, countPorts());
}

TEST(SystemModuleSerial, RefusedLineParametersLeaveTheServicesTheirPort)
{
    Arm arm({"--boot-ms", "10"});
    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());
    g_bRefuseSpeed = true;
    testing::internal::CaptureStderr();
    EXPECT_EQ(RET_FAILED, arm.m_module.openSerial());
    (void)testing::internal::GetCapturedStderr();
    g_bRefuseSpeed = false;

    EXPECT_EQ(0, arm.m_module.sendPrintCommand("M5", 2));

    EXPECT_EQ("M5\n", arm.m_controller.readReceivedBytes());
}

TEST(SystemModuleSerial, RefusedLineParametersGiveNobodyAPort)
{
    Arm arm({"--boot-ms", "10"});
    PrintService::getInstance().setUart(nullptr); // as at the start
    g_bRefuseSpeed = true;
    testing::internal::CaptureStderr();
    EXPECT_EQ(RET_FAILED, arm.m_module.openSerial());
    (void)testing::internal::GetCapturedStderr();
    g_bRefuseSpeed = false;

    EXPECT_EQ(1, arm.m_module.sendPrintCommand("M5", 2));

    EXPECT_EQ("", arm.m_controller.readReceivedBytes());
}

TEST(SystemModuleSerial, HasItsParametersWhateverTheLineHadBefore)
{
    // As the system makes it: an editing, echoing terminal; besides, slow and with two stop bits.
    int nMaster = -1;
    int nSlave = -1;
    char acPath[64] = {0};
    ASSERT_EQ(0, openpty(&nMaster, &nSlave, acPath, nullptr, nullptr));
    termios attr{};
    ASSERT_EQ(0, tcgetattr(nSlave, &attr));
    ASSERT_NE(0U, attr.c_lflag & ICANON);
    attr.c_cflag |= CSTOPB;
    cfsetispeed(&attr, B9600);
    cfsetospeed(&attr, B9600);
    ASSERT_EQ(0, tcsetattr(nSlave, TCSANOW, &attr));
    ASSERT_EQ(0, symlink(acPath, "/dev/ttyACM0"));
    ControllerPort& port = ControllerPort::getInstance();
    const size_t uDescriptors = openDescriptors().size();
    testing::internal::CaptureStdout();

    EXPECT_EQ(RET_SUCCESS, port.open());

    EXPECT_EQ("[/dev/ttyACM0]", testing::internal::GetCapturedStdout());
    EXPECT_EQ(uDescriptors + 1, openDescriptors().size()) << "the port, and not the look for it";
    ASSERT_EQ(0, tcgetattr(nSlave, &attr));
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&attr));
    EXPECT_EQ(static_cast<tcflag_t>(CS8), attr.c_cflag & (CSIZE | CSTOPB | PARENB));
    EXPECT_EQ(0U, attr.c_lflag & (ICANON | ECHO));
    EXPECT_EQ(11520, port.getUart().getCharRate());
    port.getUart().close();
    EXPECT_EQ(0, unlink("/dev/ttyACM0"));
    close(nMaster);
    close(nSlave);
}

TEST(SystemModuleSerial, IsWaitedForOnceASecond)
{
    Arm arm({"--boot-ms", "3000"}); // the node comes three seconds after the reset
    const CallJournal journal("select");
    const uint64_t u64Start = monotonicMs();

    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());

    const uint64_t u64Waited = monotonicMs() - u64Start;
    EXPECT_LE(3499U, u64Waited);
    const std::string strOutput = arm.output();
    EXPECT_LE(2U, countParts(strOutput, "[]")); // each look takes two shell commands
    EXPECT_GE(u64Waited / 1000, countParts(strOutput, "[]"));
    EXPECT_EQ(1U, countParts(strOutput, "[/dev/ttyACM0]"));
    EXPECT_EQ(countParts(strOutput, "[]"), CallJournal::count("select 1.000000"));
}

TEST(SystemModuleSerial, NeverReturnsWithoutADevice)
{
    Arm arm({"--boot-ms", "100000"});
    std::atomic<bool> bReturned{false};
    std::thread opener([&] {
        EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());
        bReturned = true;
    });
    EXPECT_TRUE(eventually([&arm] {
        return 3 == arm.m_controller.readTexts("gpio").size() - 2;
    })); // export, direction

    sleepFor(Time(2, 500000));
    EXPECT_FALSE(bReturned);

    arm.m_controller.command("plug");
    opener.join();
    EXPECT_TRUE(bReturned);
}

TEST(SystemModuleSerial, FirstNodeThatIsListedIsTaken)
{
    Arm arm({"--boot-ms", "1500"}, "/dev/ttyACM7");

    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());

    EXPECT_EQ("you are reset the STM32\n[][/dev/ttyACM7]", looksAsOne(arm.output()));
}

TEST(SystemModuleSerial, NodeThatIsNoSerialPortIsTriedAgainAndLeavesNothingOpen)
{
    Arm arm({"--boot-ms", "10"}, "/dev/ttyACM7");
    std::ofstream("/dev/ttyACM0") << "not a serial port";
    std::thread remover([&arm] {
        EXPECT_TRUE(
            eventually([&arm] { return 2 == arm.m_controller.readTexts("plugged").size(); }));
        sleepFor(Time(4, 0)); // it has been tried twice by now
        unlink("/dev/ttyACM0");
    });

    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());

    remover.join();
    const std::string strOutput = arm.output();
    EXPECT_LE(2U, countParts(strOutput, "[/dev/ttyACM0]"));
    EXPECT_EQ(1U, countParts(strOutput, "[/dev/ttyACM7]"));
    EXPECT_EQ(1U, countPorts());
}

TEST(SystemModuleSerial, IsOpenedAnewAfterEveryReset)
{
    Arm arm({"--boot-ms", "10"});

    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());
    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());

    EXPECT_EQ(1U, countPorts());
    EXPECT_EQ(2U, arm.m_controller.readTexts("unplugged").size());
    EXPECT_EQ(0, arm.m_module.sendPrintCommand("M5", 2));
    EXPECT_EQ("M5\n", arm.m_controller.readReceivedBytes());
}

TEST(SystemModuleSerial, PrintServiceIsReachedThroughTheModule)
{
    Arm arm({"--boot-ms", "10", "--image-quiet-ms", "5000"});
    EXPECT_EQ(RET_SUCCESS, arm.m_module.openSerial());
    float fProgress = -1;
    arm.m_folder.write("pp.bin", std::string("KFW1\x02\0\0\0ab", 10));
    arm.m_controller.command("line 3 late 3000");

    EXPECT_EQ(0, arm.m_module.updateControllerFirmware("x", 1));
    EXPECT_EQ(0, arm.m_module.savePrintJob("G1 X1\nG1 X2\nG1 X3\n", 18));
    EXPECT_EQ(0, arm.m_module.startPrintJob());
    EXPECT_TRUE(eventually([&arm] { return 4 < arm.m_controller.readTexts("rx").size(); }));
    EXPECT_EQ(0, arm.m_module.pausePrintJob());
    EXPECT_EQ(0, arm.m_module.getPrintProgress(&fProgress));
    EXPECT_LT(0.3F, fProgress);
    EXPECT_GT(0.7F, fProgress);
    EXPECT_EQ(0, arm.m_module.stopPrintJob());
    EXPECT_EQ(0, arm.m_module.callControllerReservedFirst());
    EXPECT_EQ(0, arm.m_module.callControllerReservedSecond());

    const Texts vecExpected = {"M21", "G1 X1", "", "G1 X2", "", "M5", "M5"};
    EXPECT_EQ(vecExpected, arm.m_controller.readTexts("rx"));
    EXPECT_EQ("x", arm.m_folder.read("firmware.bin"));
    EXPECT_EQ(Texts{"10 bytes complete"}, arm.m_controller.readTexts("image"));
}
