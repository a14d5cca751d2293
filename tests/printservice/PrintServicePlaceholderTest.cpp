// The link with the placeholder codec: what goes out, what is read, and without a port.
#include <cstring>

#include <pty.h>

#include "PrintTest.h"
#include "Time.h"

class PrintServicePlaceholder : public PrintTest
{
};

TEST_F(PrintServicePlaceholder, SingleCommandGoesOutAsABareLineEnd)
{
    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    EXPECT_EQ("\n", m_controller.readReceivedBytes());
    EXPECT_EQ("\n\nsend length:1\n", output());
}

TEST_F(PrintServicePlaceholder, SingleCommandIsOneByteAndNoMore)
{
    int nMaster = -1;
    int nSlave = -1;
    char acPath[64] = {0};
    ASSERT_EQ(0, openpty(&nMaster, &nSlave, acPath, nullptr, nullptr));
    UART uart;
    ASSERT_EQ(1, uart.open(acPath));
    service().setUart(&uart);
    ASSERT_EQ(3, write(nMaster, "ok\n", 3)); // the reply

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    uart.close();
    close(nSlave);
    char acSent[8] = {0};
    EXPECT_EQ(1, read(nMaster, acSent, sizeof(acSent)));
    EXPECT_EQ('\n', acSent[0]);
    EXPECT_EQ(-1, read(nMaster, acSent, sizeof(acSent))); // hung up: that was all
    close(nMaster);
    service().setUart(&m_uart);
}

TEST_F(PrintServicePlaceholder, StringIsSentLikeItsText)
{
    EXPECT_EQ(0, service().printSingleCmd(std::string("M5")));

    EXPECT_EQ("\n", m_controller.readReceivedBytes());
}

TEST_F(PrintServicePlaceholder, SingleCommandWaitsTwoSecondsForItsReply)
{
    m_controller.command("no-answer");
    const uint64_t u64Start = monotonicMs();

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    const uint64_t u64Waited = monotonicMs() - u64Start;
    EXPECT_LE(1999U, u64Waited);
    EXPECT_GT(9000U, u64Waited) << "a job's line waits ten";
}

TEST_F(PrintServicePlaceholder, ReplyIsNotLoggedSinceReadsReportNoBytes)
{
    const LogCapture log;

    EXPECT_EQ(0, service().printSingleCmd("M5", 2));

    EXPECT_EQ("", log.text());
}

TEST_F(PrintServicePlaceholder, FullPortRefusesTheCommandAndNoReplyIsRead)
{
    fillWire();
    m_controller.command("say later\\n");

    EXPECT_EQ(1, service().printSingleCmd("M5", 2));

    char acReply[64] = {0};
    service().readUart(acReply, 64, 5, 0);
    EXPECT_STREQ("later\n", acReply);
}

TEST_F(PrintServicePlaceholder, WithoutAPortEverythingIsRefused)
{
    service().setUart(nullptr);

    EXPECT_EQ(1, service().printSingleCmd("M5", 2));
    EXPECT_EQ(1, service().printSingleCmd("0", 1));
    EXPECT_EQ(1, service().startPrint());
    EXPECT_EQ(PRINT_STATE_PRINTING, service().getState());
    EXPECT_EQ(1, service().updateFirmware("x", 1));
    char acReply[4] = {1, 1, 1, 1};
    service().readUart(acReply, 4, 10, 0);
    EXPECT_EQ(0, memcmp(acReply, "\0\0\0\0", 4));

    EXPECT_EQ("start working!\nNow in the update firmware function\n", output());
    EXPECT_FALSE(fileExists("firmware.bin"));
    EXPECT_EQ("", m_controller.readReceivedBytes());
}

TEST_F(PrintServicePlaceholder, ReadOnAClosedPortOnlyClears)
{
    m_uart.close();

    char acReply[4] = {1, 1, 1, 1};
    service().readUart(acReply, 4, 10, 0);

    EXPECT_EQ(0, memcmp(acReply, "\0\0\0\0", 4));
}

TEST_F(PrintServicePlaceholder, ReplyMayFillTheBuffer)
{
    m_controller.command("garbage");
    ASSERT_EQ(3, m_uart.send("G1\n", 3, 0));

    char acReply[65] = {0};
    acReply[64] = 'x';
    service().readUart(acReply, 64, 5, 0);

    EXPECT_EQ('\xff', acReply[0]);
    EXPECT_NE('\0', acReply[63]);
    EXPECT_EQ('x', acReply[64]);
}

TEST_F(PrintServicePlaceholder, CommandThatBeginsWithZeroStreamsTheImageFirst)
{
    std::string strImage;
    while (strImage.size() < 3000) {
        strImage += "firmware line " + std::to_string(strImage.size()) + "\n";
    }
    m_folder.write("pp.bin", strImage);

    EXPECT_EQ(0, service().printSingleCmd("0", 1));

    EXPECT_EQ("\n" + strImage + "\n", m_controller.readReceivedBytes());
    const std::string strRest = std::to_string(strImage.size() - 2048);
    EXPECT_EQ("start update\n"
              "\n\nsend length:1\n"
              "you read 2048 and has send 2048 byte to stm32\n"
              "you read " +
                  strRest + " and has send " + strRest +
                  " byte to stm32\n"
                  "\n\nsend length:1\n",
              output());
}

TEST_F(PrintServicePlaceholder, CommandThatBeginsWithZeroIsSentWithoutAnImage)
{
    EXPECT_EQ(0, service().printSingleCmd("0", 1));

    EXPECT_EQ("\n", m_controller.readReceivedBytes());
    EXPECT_EQ("start update\nopen bin failed!\n\n\nsend length:1\n", output());
}

TEST_F(PrintServicePlaceholder, ProgressBeforeAnyJobIsZero)
{
    EXPECT_EQ(0.0F, progress());
    EXPECT_EQ("persent 0.000000\n", output());
}

TEST_F(PrintServicePlaceholder, PolledReplyHasNoStatusForThePlaceholder)
{
    m_controller.command("say status:3\\n");

    service().pollStatus();

    EXPECT_EQ("", output());
}

TEST_F(PrintServicePlaceholder, JobRunsWithThePlaceholder)
{
    runJob("G1 X1\nG1 X2\nG1 X3\n");

    EXPECT_TRUE(eventually(
        [this] { return "G1 X1\n\nG1 X2\n\nG1 X3\n\n\n" == m_controller.readReceivedBytes(); }));
}

TEST_F(PrintServicePlaceholder, DeliberateStopNeverSwitchesTheLaserOff)
{
    saveJob("M3 S100\nG1 X1\n");
    m_controller.command("line 3 late 500"); // the job is still open
    EXPECT_EQ(0, service().startPrint());
    EXPECT_TRUE(waitForLines(4));

    EXPECT_EQ(0, service().pausePrint());
    EXPECT_EQ(0, service().stopPrint());

    EXPECT_EQ(1, m_controller.getState("laser"));
    EXPECT_FALSE(contains(m_controller.readReceivedBytes(), "M5"));
    EXPECT_FALSE(contains(output(), "could not be sent")); // the empty line was
}

TEST_F(PrintServicePlaceholder, DeliberateRefusedLineAndAlarmAreAcknowledged)
{
    m_controller.command("line 2 refuse 5");
    m_controller.command("line 4 alarm 1");

    runJob("M3 S100\nG1 X1\nG1 X2\nG1 X3\nG1 X4\n");

    EXPECT_TRUE(eventually([this] {
        return "M3 S100\n\nG1 X1\n\nG1 X2\n\nG1 X3\n\nG1 X4\n\n\n" ==
               m_controller.readReceivedBytes();
    }));
    EXPECT_EQ(0, m_controller.getState("laser")); // by the controller itself
    EXPECT_EQ(1, m_controller.getState("locked"));
    EXPECT_EQ(0, m_controller.getState("moving"));
}

TEST_F(PrintServicePlaceholder, DeliberateSilenceCountsAsAcknowledgedAfterTenSeconds)
{
    m_controller.command("no-answer");
    const uint64_t u64Start = monotonicMs();

    runJob("M3 S100\nG1 X2\n");

    EXPECT_LE(10U * 1000 - 1, monotonicMs() - u64Start);
    EXPECT_TRUE(eventually(
        [this] { return "M3 S100\n\nG1 X2\n\n\n" == m_controller.readReceivedBytes(); }));
    EXPECT_EQ(1, m_controller.getState("laser"));
}
