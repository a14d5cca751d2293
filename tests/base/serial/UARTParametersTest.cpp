// The line parameters of the serial port on a pseudo terminal: speed, sizes, parity.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <termios.h>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "OpenPort.h"
#include "Time.h"
#include "UART.h"

namespace {

class UARTParameters : public OpenPort
{
};

class UARTParametersChip : public OpenPortOnChip
{
};

} // namespace

TEST_F(UARTParameters, ControllerParametersGiveItsCharacterRate)
{
    EXPECT_EQ(1, m_uart.setParam(115200, 8, 1, 0));

    EXPECT_EQ(11520, m_uart.getCharRate());
    EXPECT_EQ(5, m_uart.txTime(64));
    EXPECT_TRUE(Time(0, 5000) == m_uart.txTimeValue(64));
    const termios attr = m_line.attributes();
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetospeed(&attr));
    EXPECT_EQ(static_cast<speed_t>(B115200), cfgetispeed(&attr));
    EXPECT_EQ(static_cast<tcflag_t>(CS8), attr.c_cflag & (CSIZE | CSTOPB | PARENB));
}

TEST_F(UARTParametersChip, ParityCountsAsABit)
{
    EXPECT_EQ(1, m_uart.setParam(9600, 7, 2, 2));

    EXPECT_EQ(9600 / 11, m_uart.getCharRate());
    EXPECT_EQ(((3 * 8 + 7 - 1) * 1000) / (7 * (9600 / 11)), m_uart.txTime(3));
}

TEST_F(UARTParametersChip, LargeBlocksDoNotOverflowTheTime)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));

    EXPECT_EQ(86805, m_uart.txTime(1000000));
    EXPECT_TRUE(Time(86, 805000) == m_uart.txTimeValue(1000000));
    EXPECT_TRUE(Time() == m_uart.txTimeValue(-100));
}

TEST_F(UARTParametersChip, ParametersStopAtTheFirstFailure)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));

    EXPECT_EQ(0, m_uart.setParam(9600, 9, 2, 1));

    EXPECT_EQ(9600, m_uart.getSpeed());
    EXPECT_EQ(8, m_uart.getDataBits());
    EXPECT_EQ(1, m_uart.getStopBits());
    EXPECT_EQ(0, m_uart.getParity());
    EXPECT_EQ(11520, m_uart.getCharRate());
}

TEST_F(UARTParametersChip, RefusedStopBitsAndParityEndTheParameters)
{
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setParam(9600, 8, 3, 1));
    EXPECT_EQ(0U, controlFlags(PARENB)) << "what comes behind the failure is not set";
    EXPECT_EQ(0, m_uart.setParam(9600, 8, 1, 5));

    EXPECT_EQ("Unsupported stop bits(3)\nUnsupported parity\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, m_uart.getCharRate());
}

TEST_F(UARTParameters, EverySpeedOfTheTable)
{
    const std::vector<std::pair<int32_t, speed_t>> vecSpeed = {
        {115200, B115200}, {57600, B57600}, {38400, B38400}, {19200, B19200}, {9600, B9600},
        {4800, B4800},     {2400, B2400},   {1200, B1200},   {300, B300}};
    for (const auto& speed : vecSpeed) {
        EXPECT_EQ(1, m_uart.setSpeed(speed.first));

        const termios attr = m_line.attributes();
        EXPECT_EQ(speed.second, cfgetospeed(&attr)) << speed.first;
        EXPECT_EQ(speed.second, cfgetispeed(&attr)) << speed.first;
        EXPECT_EQ(speed.first, m_uart.getSpeed());
    }
}

TEST_F(UARTParameters, DeliberateUnknownSpeedSucceedsAndChangesNothing)
{
    ASSERT_EQ(1, m_uart.setSpeed(19200));

    for (const int32_t s32Baud : {250000, 0}) { // 0 is a hang-up for termios
        EXPECT_EQ(1, m_uart.setSpeed(s32Baud));

        EXPECT_EQ(s32Baud, m_uart.getSpeed());
        const termios attr = m_line.attributes();
        EXPECT_EQ(static_cast<speed_t>(B19200), cfgetospeed(&attr));
    }
}

TEST_F(UARTParametersChip, DataBitsFiveToEight)
{
    const std::vector<std::pair<int32_t, tcflag_t>> vecSize = {
        {5, CS5}, {6, CS6}, {7, CS7}, {8, CS8}};
    g_chip.attr.c_cflag = CS8 | CLOCAL | PARENB;
    for (const auto& size : vecSize) {
        g_chip.strJournal.clear();

        EXPECT_EQ(1, m_uart.setDataBits(size.first));

        EXPECT_EQ(size.second | CLOCAL | PARENB, g_chip.attr.c_cflag);
        EXPECT_EQ(size.first, m_uart.getDataBits());
        EXPECT_EQ("get flush-in set get ", g_chip.strJournal);
    }
}

TEST_F(UARTParameters, SizeThatTheDeviceRefusesIsTold)
{
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setDataBits(7)); // pseudo terminals know eight only

    EXPECT_EQ(std::string("SetupSerial 3: ") + strerror(EINVAL) + "\n",
              testing::internal::GetCapturedStderr());
}

// Some C libraries leave it to the caller to look whether all was taken.
TEST_F(UARTParametersChip, SizeThatTheDeviceDoesNotTakeIsTold)
{
    g_chip.attr.c_cflag = CS8;
    g_chip.untaken = CSIZE;
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setDataBits(7));

    EXPECT_EQ(std::string("SetupSerial 3: ") + strerror(EINVAL) + "\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(1, m_uart.setDataBits(8));
}

TEST_F(UARTParametersChip, FiveBitsAreNotAskedForBack)
{
    g_chip.attr.c_cflag = CS8;
    g_chip.untaken = CSIZE; // as a pseudo terminal

    EXPECT_EQ(1, m_uart.setDataBits(5));

    EXPECT_EQ(5, m_uart.getDataBits());
}

TEST_F(UARTParametersChip, ParityThatTheDeviceDoesNotTakeIsTold)
{
    g_chip.untaken = PARENB;
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setParity(1));

    EXPECT_EQ(std::string("SetupSerial 3: ") + strerror(EINVAL) + "\n",
              testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, m_uart.getParity());
}

TEST_F(UARTParametersChip, ReceiverThatStaysOffIsTold)
{
    g_chip.untaken = CREAD;
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setRawMode());

    EXPECT_EQ(std::string("setattr error: ") + strerror(EINVAL) + "\n",
              testing::internal::GetCapturedStderr());
}

TEST_F(UARTParametersChip, RawModeSwitchesTheReceiverOn)
{
    ASSERT_EQ(0U, controlFlags(CREAD)); // a pseudo terminal always has it

    EXPECT_EQ(1, m_uart.setRawMode());

    EXPECT_EQ(static_cast<tcflag_t>(CLOCAL | CREAD | HUPCL),
              controlFlags(CLOCAL | CREAD | HUPCL | CRTSCTS));
}

TEST_F(UARTParametersChip, RawModeAndSpeedFlushAroundTheirChange)
{
    EXPECT_EQ(1, m_uart.setRawMode());
    EXPECT_EQ("get flush-io flush-io set get ", g_chip.strJournal);
    g_chip.strJournal.clear();

    EXPECT_EQ(1, m_uart.setSpeed(9600));
    EXPECT_EQ("get flush-io flush-io set get flush-io ", g_chip.strJournal);
    g_chip.strJournal.clear();

    EXPECT_EQ(1, m_uart.setSpeed(250000));
    EXPECT_EQ("get ", g_chip.strJournal);
}

TEST_F(UARTParameters, OtherDataBitsFailSilently)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setDataBits(9));
    EXPECT_EQ(0, m_uart.setDataBits(4));

    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
    EXPECT_EQ(7, m_uart.getDataBits());
}

TEST_F(UARTParametersChip, StopBitsOneAndTwo)
{
    EXPECT_EQ(1, m_uart.setStopBits(2));
    EXPECT_EQ(static_cast<tcflag_t>(CSTOPB), controlFlags(CSTOPB));
    EXPECT_EQ(1, m_uart.setStopBits(1));
    EXPECT_EQ(0U, controlFlags(CSTOPB));
    EXPECT_EQ(1, m_uart.getStopBits());
}

TEST_F(UARTParameters, OtherStopBitsAreTold)
{
    testing::internal::CaptureStderr();

    EXPECT_EQ(0, m_uart.setStopBits(3));

    EXPECT_EQ("Unsupported stop bits(3)\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(0, m_uart.getStopBits());
}

TEST_F(UARTParametersChip, ParityCodesSetTheirFlags)
{
    g_chip.attr.c_iflag = PARMRK | IGNPAR;
    g_chip.attr.c_cflag = CS8;

    EXPECT_EQ(1, m_uart.setParity(1));
    EXPECT_EQ(static_cast<tcflag_t>(CS8 | PARENB | PARODD), g_chip.attr.c_cflag);
    EXPECT_EQ(static_cast<tcflag_t>(INPCK), g_chip.attr.c_iflag);
    EXPECT_EQ("get flush-in set get ", g_chip.strJournal);
    EXPECT_EQ(1, m_uart.setParity(2));
    EXPECT_EQ(static_cast<tcflag_t>(CS8 | PARENB), g_chip.attr.c_cflag);
    EXPECT_EQ(static_cast<tcflag_t>(INPCK), g_chip.attr.c_iflag);
    EXPECT_EQ(2, m_uart.getParity());
    EXPECT_EQ(1, m_uart.setParity(0));
    EXPECT_EQ(0U, controlFlags(PARENB));
    EXPECT_EQ(0U, inputFlags());
    EXPECT_EQ(0, m_uart.getParity());
}

TEST_F(UARTParametersChip, EvenParityNeedsNoOtherBeforeIt)
{
    g_chip.attr.c_iflag = PARMRK | IGNPAR;
    g_chip.attr.c_cflag = CS8 | PARODD;

    EXPECT_EQ(1, m_uart.setParity(2));

    EXPECT_EQ(static_cast<tcflag_t>(CS8 | PARENB), g_chip.attr.c_cflag);
    EXPECT_EQ(static_cast<tcflag_t>(INPCK), g_chip.attr.c_iflag);
}

TEST_F(UARTParametersChip, DeliberateParityCodesThreeAndFourLeaveTheInputFlags)
{
    for (const int32_t s32Code : {3, 4}) {
        ASSERT_EQ(1, m_uart.setParity(1));

        EXPECT_EQ(1, m_uart.setParity(s32Code));

        EXPECT_EQ(0U, controlFlags(PARENB));
        EXPECT_EQ(static_cast<tcflag_t>(INPCK), inputFlags());
        EXPECT_EQ(s32Code, m_uart.getParity());
    }
}

TEST_F(UARTParameters, OtherParityCodesAreTold)
{
    for (const int32_t s32Code : {5, 100, -1}) {
        testing::internal::CaptureStderr();

        EXPECT_EQ(0, m_uart.setParity(s32Code));

        EXPECT_EQ("Unsupported parity\n", testing::internal::GetCapturedStderr());
        EXPECT_EQ(0, m_uart.getParity());
    }
}
