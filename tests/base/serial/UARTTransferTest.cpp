// Reads, sends and flushes of the serial port on a pseudo terminal.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <sys/ioctl.h>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "OpenPort.h"
#include "Time.h"
#include "UART.h"

namespace {

class UARTTransfer : public OpenPort
{
};

class UARTTransferChip : public OpenPortOnChip
{
};

} // namespace

TEST_F(UARTTransfer, DeliberateReadReturnsZeroWhenBytesArrived)
{
    m_line.feed("0123456789");

    char acBuffer[64] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 64, Time(5, 0)));

    EXPECT_EQ("0123456789", contentOf(acBuffer, 64));
}

TEST_F(UARTTransfer, ReadTakesAtMostWhatIsAskedFor)
{
    m_line.feed("0123456789");

    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 4, Time(5, 0)));
    EXPECT_EQ("0123", contentOf(acBuffer, 8));
    EXPECT_EQ(0, m_uart.read(acBuffer, 0, Time(5, 0)));
    EXPECT_EQ("0123", contentOf(acBuffer, 8));
}

TEST_F(UARTTransfer, ReadTakesOneReadOnly)
{
    m_line.feed("one");
    char acBuffer[8] = {0};
    const uint64_t u64Start = monotonicMs();

    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(60, 0)));

    EXPECT_GT(30000U, monotonicMs() - u64Start) << "the rest is not waited for";
    EXPECT_EQ("one", contentOf(acBuffer, 8));
}

TEST_F(UARTTransfer, ReadWithZeroTimeOutLooksOnce)
{
    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));
    m_line.feed("x");

    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));

    EXPECT_EQ("x", contentOf(acBuffer, 8));
}

TEST_F(UARTTransfer, ReadWaitsItsTime)
{
    const uint64_t u64Start = monotonicMs();

    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 200000)));

    EXPECT_LE(199U, monotonicMs() - u64Start);
}

TEST_F(UARTTransfer, ReadOfAPortThatWentAwayBringsNothing)
{
    m_line.unplug();

    char acBuffer[8] = {0};
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(5, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));
}

TEST_F(UARTTransfer, SendToAPortThatWentAwayIsTold)
{
    m_line.unplug();
    testing::internal::CaptureStdout();

    EXPECT_EQ(0, m_uart.send("M5\n", 3, 0));

    EXPECT_EQ("nWriteLength:-1\n", testing::internal::GetCapturedStdout());
}

TEST_F(UARTTransfer, FullPortCutsTheSendShort)
{
    const std::string strBlock(1000000, 'x');
    testing::internal::CaptureStdout();

    const int32_t s32Sent = m_uart.send(strBlock.data(), 1000000, 0);

    EXPECT_EQ("nWriteLength:-1\n", testing::internal::GetCapturedStdout());
    EXPECT_LT(0, s32Sent);
    EXPECT_GT(1000000, s32Sent);
    int32_t s32Arrived = 0;
    while (s32Arrived < s32Sent) {
        const auto nPart = static_cast<int32_t>(m_line.drain().size());
        ASSERT_LT(0, nPart);
        s32Arrived += nPart;
    }
    EXPECT_EQ(s32Sent, s32Arrived);
}

TEST_F(UARTTransfer, SendWithoutDrainAsksNothing)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    const LogCapture log;
    testing::internal::CaptureStdout();

    EXPECT_EQ(3, m_uart.send("M5\n", 3, 0));
    EXPECT_EQ(3, m_uart.send("M5\n", 3, 2));

    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(UARTTransfer, DrainOnAPortWithoutLineStatusFails)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    const LogCapture log;

    EXPECT_EQ(-1, m_uart.send("M5\n", 3, 1));

    EXPECT_EQ("M5\n", m_line.drain());
    const std::vector<std::string> vecExpected = {
        std::string("[debug] [UART.cpp ] [send] error: ") + strerror(ENOTTY) + "\n"};
    EXPECT_EQ(vecExpected, log.lines());
}

TEST_F(UARTTransferChip, DrainEndsWhenTheTransmitterIsEmpty)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    g_chip.vecStatus = {TIOCSER_TEMT};

    EXPECT_EQ(3, m_uart.send("M5\n", 3, 1));

    EXPECT_EQ(1U, g_chip.uQueries);
}

TEST_F(UARTTransferChip, DrainGivesUpAfterTwoRounds)
{
    ASSERT_EQ(1, m_uart.setParam(115200, 8, 1, 0));
    g_chip.vecStatus = {0, 0};

    EXPECT_EQ(3, m_uart.send("M5\n", 3, 1));

    EXPECT_EQ(2U, g_chip.uQueries);
}

TEST_F(UARTTransferChip, DrainWaitsOneTransmissionTimePerRound)
{
    ASSERT_EQ(1, m_uart.setParam(300, 8, 1, 0)); // 30 characters per second
    g_chip.vecStatus = {0, TIOCSER_TEMT};
    const uint64_t u64Start = monotonicMs();

    EXPECT_EQ(3, m_uart.send("M5\n", 3, 1));

    EXPECT_LE(2U * 129 - 1, monotonicMs() - u64Start); // (24 + 7) * 1000 / 240 = 129 ms each
    EXPECT_EQ(2U, g_chip.uQueries);
}

TEST_F(UARTTransferChip, FlushesNameTheirQueues)
{
    EXPECT_EQ(0, m_uart.flushIn());
    EXPECT_EQ(0, m_uart.flushOut());
    EXPECT_EQ(0, m_uart.flushIO());

    EXPECT_EQ("flush-in flush-out flush-io ", g_chip.strJournal);
}

TEST_F(UARTTransfer, FlushesThrowTheirQueueAway)
{
    char acBuffer[8] = {0};
    m_line.feed("in");
    EXPECT_EQ(0, m_uart.flushIn());
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));

    m_line.feed("in");
    EXPECT_EQ(0, m_uart.flushIO());
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(0, 0)));
    EXPECT_EQ("", contentOf(acBuffer, 8));

    m_line.feed("in");
    EXPECT_EQ(0, m_uart.flushOut());
    EXPECT_EQ(0, m_uart.read(acBuffer, 8, Time(5, 0)));
    EXPECT_EQ("in", contentOf(acBuffer, 8));

    m_uart.close();
    EXPECT_EQ(-1, m_uart.flushIn());
    EXPECT_EQ(-1, m_uart.flushOut());
    EXPECT_EQ(-1, m_uart.flushIO());
}
