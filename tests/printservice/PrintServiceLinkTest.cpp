// The link when the port takes only a part, or is gone.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include <sys/syscall.h>

#include "PrintTest.h"

namespace {

/** A port with room for so many bytes; all others take what they get. */
struct NarrowPort
{
    std::atomic<int> nFd{-1};
    std::atomic<ssize_t> nRoom{-1};  // -1: any number
    std::atomic<int> nError{EAGAIN}; // of a write without room
};

NarrowPort g_port;

} // namespace

/** In place of the C library's. */
extern "C" ssize_t write(int nFd, const void* pData, size_t uSize)
{
    if (nFd != g_port.nFd || g_port.nRoom < 0) {
        return syscall(SYS_write, nFd, pData, uSize);
    }
    if (0 == g_port.nRoom) {
        errno = g_port.nError;
        return -1;
    }
    const size_t uTaken = std::min(uSize, static_cast<size_t>(g_port.nRoom.load()));
    g_port.nRoom -= static_cast<ssize_t>(uTaken);
    return syscall(SYS_write, nFd, pData, uTaken);
}

namespace {

/** The line of a write that failed for good; each C library words the error its own way. */
std::string portIsGone(int nError)
{
    return std::string("serial port is gone: ") + strerror(nError) + "\n";
}

class PrintServiceLink : public PrintTest
{
protected:
    void SetUp() override
    {
        PrintTest::SetUp();
        g_port.nFd = m_uart.getFd();
        g_port.nRoom = -1;
    }

    void TearDown() override
    {
        g_port.nFd = -1;
        g_port.nError = EAGAIN;
        PrintTest::TearDown();
    }

    static void leaveRoomFor(ssize_t nBytes)
    {
        g_port.nRoom = nBytes;
    }

    static void leaveRoom()
    {
        g_port.nRoom = -1;
    }
};

} // namespace

TEST_F(PrintServiceLink, CommandBehindACutCommandStandsAlone)
{
    EXPECT_EQ(0, service().printSingleCmd("M3 S100", 7));
    leaveRoomFor(4);
    EXPECT_EQ(1, service().printSingleCmd("G1 X5", 5));
    leaveRoom();

    EXPECT_EQ(0, service().stopPrint());

    EXPECT_EQ("M3 S100\nG1 X\nM5\n", m_controller.readReceivedBytes());
    EXPECT_EQ(0, m_controller.getState("laser"));
    EXPECT_EQ("M3 S100\n\nsend length:8\n"
              "G1 X5\n\nsend length:6\nnWriteLength:-1\n"
              "M5\n\nsend length:3\n", // the lone line end is in no printed length
              output());
}

TEST_F(PrintServiceLink, LineBehindACutLineStandsAlone)
{
    const LogCapture log;
    m_controller.command("say ok\\n"); // keeps the read behind the cut line from waiting
    saveJob("G1 X12\nG1 X3\n");
    leaveRoomFor(5);
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(eventually([&log] { return contains(log.text(), "stop thread by myself"); }));
    EXPECT_TRUE(contains(log.text(), "send: G1 X12\n\n total bytes:8, but send 5 bytes\n"));
    leaveRoom();

    EXPECT_EQ(0, service().pausePrint());
    EXPECT_EQ(0, service().startPrint());

    EXPECT_TRUE(waitForState(PRINT_STATE_STOPPED));
    EXPECT_TRUE(eventually([this] {
        return "G1 X1\nM5\nG1 X3\n\n\n" == m_controller.readReceivedBytes();
    })) << m_controller.readReceivedBytes();
}

TEST_F(PrintServiceLink, LineEndGoesOutOnceOnly)
{
    leaveRoomFor(0);
    EXPECT_EQ(1, service().printSingleCmd("M5", 2));
    leaveRoom();

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));
    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    EXPECT_EQ("\nM5\nM5\n", m_controller.readReceivedBytes());
}

TEST_F(PrintServiceLink, AnswerToTheLineEndIsDropped)
{
    leaveRoomFor(1);
    EXPECT_EQ(1, service().printSingleCmd("M5", 2));
    leaveRoom();
    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    char acReply[64] = {0};
    service().readUart(acReply, 64, 0, 100000);

    EXPECT_STREQ("", acReply);
    EXPECT_EQ((Texts{"M", "M5"}), received());
    EXPECT_EQ(2U, m_controller.readTexts("tx").size());
}

TEST_F(PrintServiceLink, SilenceAfterTheLineEndIsWaitedForHalfASecond)
{
    leaveRoomFor(2);
    EXPECT_EQ(1, service().printSingleCmd("M5", 2));
    leaveRoom();
    m_controller.command("no-answer");
    const uint64_t u64Start = monotonicMs();

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    EXPECT_LE(499U, monotonicMs() - u64Start);
    EXPECT_EQ("M5\nM5\n", m_controller.readReceivedBytes());
    EXPECT_EQ((Texts{"ok\n"}), m_controller.readTexts("tx"));
}

TEST_F(PrintServiceLink, NothingGoesOutBehindALineEndThatIsRefused)
{
    leaveRoomFor(4);
    EXPECT_EQ(1, service().printSingleCmd("G1 X5", 5));
    EXPECT_EQ(1, service().printSingleCmd("M5", 2)); // still full
    leaveRoom();

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    EXPECT_EQ("G1 X\nM5\n", m_controller.readReceivedBytes());
}

TEST_F(PrintServiceLink, CutImageIsNotEnded)
{
    m_folder.write("pp.bin", std::string("KFW1\x0a\0\0\0", 8) + "0123456789");
    leaveRoomFor(4 + 8); // M21 and the image's head
    EXPECT_EQ(0, service().updateFirmware("x", 1));
    leaveRoom();
    ASSERT_EQ(10, m_uart.send("0123456789", 10, 0));

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    EXPECT_EQ("M21\nM5\n", m_controller.readReceivedBytes());
    EXPECT_EQ(Texts{"18 bytes complete"}, m_controller.readTexts("image"));
}

TEST_F(PrintServiceLink, FullPortIsNotToldAsGone)
{
    leaveRoomFor(0);

    EXPECT_EQ(0, service().stopPrint());

    EXPECT_EQ("M5\n\nsend length:3\nnWriteLength:-1\nlaser off could not be sent!\n", output());
}

TEST_F(PrintServiceLink, PortThatIsGoneIsTold)
{
    m_controller.command("unplug");

    EXPECT_EQ(1, service().printSingleCmd("$X", 2));

    EXPECT_EQ("$X\n\nsend length:3\nnWriteLength:-1\n" + portIsGone(EIO), output());
}

TEST_F(PrintServiceLink, ClosedPortIsToldAsGoneToo)
{
    m_uart.close();

    EXPECT_EQ(1, service().printSingleCmd("$X", 2));

    EXPECT_TRUE(contains(output(), "\n" + portIsGone(EBADF)));
}

TEST_F(PrintServiceLink, EveryErrorOfAPortThatIsGoneIsTold)
{
    leaveRoomFor(0);
    for (const int nError : {EIO, ENODEV, ENXIO, EBADF}) {
        g_port.nError = nError;

        EXPECT_EQ(1, service().printSingleCmd("$X", 2));
    }

    const std::string strOutput = output();
    for (const int nError : {EIO, ENODEV, ENXIO, EBADF}) {
        EXPECT_TRUE(contains(strOutput, "\n" + portIsGone(nError))) << nError;
    }
}

TEST_F(PrintServiceLink, JobOnAPortThatIsGoneTellsIt)
{
    const LogCapture log;
    m_controller.command("unplug");
    saveJob("G1 X1\n");

    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(eventually([&log] { return contains(log.text(), "stop thread by myself"); }));

    const std::string strOutput = output();
    EXPECT_TRUE(contains(strOutput, "send out:G1 X1\n\nnWriteLength:-1\n" + portIsGone(EIO) +
                                        "send failed!\n"))
        << strOutput;
}

TEST_F(PrintServiceLink, StopAndPauseThatCouldNotBeSentSaySo)
{
    m_controller.command("unplug");

    EXPECT_EQ(0, service().stopPrint());
    EXPECT_EQ(PRINT_STATE_STOPPED, service().getState());
    const std::string strStop = output();
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, service().pausePrint());
    EXPECT_EQ(PRINT_STATE_PAUSED, service().getState());
    const std::string strPause = testing::internal::GetCapturedStdout();

    EXPECT_EQ("M5\n\nsend length:3\nnWriteLength:-1\n" + portIsGone(EIO) +
                  "laser off could not be sent!\n",
              strStop);
    EXPECT_EQ(strStop, strPause);
}

TEST_F(PrintServiceLink, StopWithoutAPortSaysSo)
{
    service().setUart(nullptr);

    EXPECT_EQ(0, service().stopPrint());

    EXPECT_EQ("laser off could not be sent!\n", output());
}
