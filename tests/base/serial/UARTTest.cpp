// The serial port on a pseudo terminal: opening, raw mode, descriptor, texts.
#include "UART.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "OpenPort.h"
#include "Time.h"

namespace {

class UARTPort : public OpenPort
{
};

} // namespace

TEST(UART, StartsClosedWithItsPlaceholders)
{
    const UART uart;

    EXPECT_EQ(-1, uart.getFd());
    EXPECT_EQ(9600, uart.getSpeed());
    EXPECT_EQ(7, uart.getDataBits());
    EXPECT_EQ(0, uart.getStopBits());
    EXPECT_EQ(0, uart.getParity());
    EXPECT_EQ(0, uart.getCharRate());
}

TEST(UART, TransmissionTimeBeforeParametersIsZero)
{
    const UART uart;

    EXPECT_EQ(0, uart.txTime(64));
    EXPECT_TRUE(Time() == uart.txTimeValue(64));
}

TEST(UART, MissingDeviceIsASilentFailure)
{
    UART uart;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, uart.open("/nowhere/ttyACM0"));

    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(-1, uart.getFd());
}

TEST(UART, DeliberateOpenClosesWhatARefusedRawModeLeftOpen)
{
    UART uart;
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, uart.open("/dev/null"));

    EXPECT_EQ(std::string("getattr error: ") + strerror(ENOTTY) + "\n",
              testing::internal::GetCapturedStderr());
    const int nFirst = uart.getFd();
    EXPECT_NE(-1, fcntl(nFirst, F_GETFD));
    const Line line;
    EXPECT_EQ(1, uart.open(line.getPath()));
    EXPECT_EQ(nFirst, uart.getFd()); // its number was free again
    uart.close();
}

TEST(UART, OpenWithoutPathTakesThePathSetBefore)
{
    const Line line;
    UART uart;
    uart.setPath(line.getPath());

    EXPECT_EQ(1, uart.open());

    struct stat ours;
    struct stat theirs;
    fstat(uart.getFd(), &ours);
    stat(line.getPath().c_str(), &theirs);
    EXPECT_EQ(theirs.st_rdev, ours.st_rdev);
    uart.close();
}

TEST(UART, DestructorLeavesTheDescriptorOpen)
{
    const Line line;
    int nFd = -1;
    {
        UART uart;
        ASSERT_EQ(1, uart.open(line.getPath()));
        nFd = uart.getFd();
    }

    EXPECT_NE(-1, fcntl(nFd, F_GETFD));
    close(nFd);
}

TEST_F(UARTPort, SecondCloseDoesNothing)
{
    const int nFd = m_uart.getFd();
    m_uart.close();
    const int nOther = dup(STDERR_FILENO); // takes the freed number
    ASSERT_EQ(nFd, nOther);

    m_uart.close();

    EXPECT_EQ(-1, m_uart.getFd());
    EXPECT_NE(-1, fcntl(nOther, F_GETFD));
    close(nOther);
}

TEST_F(UARTPort, DescriptorDoesNotBlockAndIsNotInherited)
{
    EXPECT_EQ(O_RDWR | O_NONBLOCK, fcntl(m_uart.getFd(), F_GETFL) & (O_ACCMODE | O_NONBLOCK));
    EXPECT_EQ(FD_CLOEXEC, fcntl(m_uart.getFd(), F_GETFD));
}

TEST_F(UARTPort, SetBlockReplacesAllStatusFlags)
{
    fcntl(m_uart.getFd(), F_SETFL, O_NONBLOCK | O_APPEND);

    EXPECT_EQ(0, m_uart.setBlock(true));
    EXPECT_EQ(0, fcntl(m_uart.getFd(), F_GETFL) & (O_NONBLOCK | O_APPEND));
    EXPECT_EQ(0, m_uart.setBlock(false));
    EXPECT_EQ(O_NONBLOCK, fcntl(m_uart.getFd(), F_GETFL) & (O_NONBLOCK | O_APPEND));
}

TEST_F(UARTPort, RawModeSetsItsFlagsAndLeavesTheOthers)
{
    termios before{};
    before.c_cflag = CS7 | CSTOPB | PARENB | CRTSCTS | B1200;
    before.c_iflag = IXON | IXOFF | ICRNL | INPCK;
    before.c_oflag = OPOST | OLCUC | ONLCR | ONOCR | OCRNL | ONLRET;
    before.c_lflag = ICANON | ECHO | ECHOE | ISIG | IEXTEN;
    before.c_cc[VTIME] = 5;
    before.c_cc[VMIN] = 7;
    m_line.setAttributes(before);
    before = m_line.attributes(); // as far as the terminal took it

    EXPECT_EQ(1, m_uart.setRawMode());

    const termios after = m_line.attributes();
    EXPECT_EQ(CLOCAL | CREAD | HUPCL, after.c_cflag & (CLOCAL | CREAD | HUPCL | CRTSCTS));
    EXPECT_EQ(before.c_cflag & (CSIZE | CSTOPB | PARENB | CBAUD),
              after.c_cflag & (CSIZE | CSTOPB | PARENB | CBAUD));
    EXPECT_EQ(0U, after.c_oflag & (OPOST | OLCUC | ONLCR | ONOCR | OCRNL | ONLRET));
    EXPECT_EQ(0U, after.c_lflag & (ICANON | ECHO | ECHOE | ISIG));
    EXPECT_EQ(static_cast<tcflag_t>(IEXTEN), after.c_lflag & IEXTEN);
    EXPECT_EQ(0U, after.c_iflag);
    EXPECT_EQ(0, after.c_cc[VTIME]);
    EXPECT_EQ(1, after.c_cc[VMIN]);
}

TEST_F(UARTPort, RawModeThrowsQueuedInputAway)
{
    m_line.feed("old");
    ASSERT_EQ(0, m_uart.setBlock(false));

    EXPECT_EQ(1, m_uart.setRawMode());

    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));
}

TEST_F(UARTPort, BytesPassUnchanged)
{
    std::string strAll;
    for (int i = 0; i < 256; ++i) {
        strAll += static_cast<char>(i);
    }

    m_line.feed(strAll);
    char acBuffer[256] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 256, Time(5, 0)));
    EXPECT_EQ(strAll, std::string(acBuffer, 256));

    EXPECT_EQ(256, m_uart.send(strAll.data(), 256, 0));
    EXPECT_EQ(strAll, m_line.drain());
}

TEST(UART, ClosedPortTellsEachFailure)
{
    UART uart;
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, uart.setRawMode());
    EXPECT_EQ(0, uart.setSpeed(9600));
    EXPECT_EQ(1, uart.setSpeed(250000));
    EXPECT_EQ(0, uart.setDataBits(8));
    EXPECT_EQ(0, uart.setStopBits(1));
    EXPECT_EQ(0, uart.setParity(0));

    const std::string strEnd = std::string(": ") + strerror(EBADF) + "\n";
    EXPECT_EQ("getattr error" + strEnd + "tcsetattr fd1" + strEnd + "SetupSerial 1" + strEnd +
                  "SetupSerial 1" + strEnd + "SetupSerial 1" + strEnd,
              testing::internal::GetCapturedStderr());
    char acBuffer[4] = {0};
    EXPECT_EQ(-1, uart.read(acBuffer, 4, Time(0, 0)));
}

TEST_F(UARTPort, AttributesArePrintedInHex)
{
    const termios attr = m_line.attributes();
    char acExpected[128] = {0};
    snprintf(acExpected, sizeof(acExpected),
             "getattr,c_iflag=0x%x,c_oflag=0x%x,c_cflag=0x%x,c_lflag=0x%x\n", attr.c_iflag,
             attr.c_oflag, attr.c_cflag, attr.c_lflag);
    testing::internal::CaptureStdout();

    m_uart.printAttr();

    EXPECT_EQ(acExpected, testing::internal::GetCapturedStdout());
}
