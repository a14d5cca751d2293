// The link by itself: without a port, and while somebody waits for an answer.
#include "PrintLink.h"

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "Eventually.h"
#include "Fault.h"
#include "LogCapture.h"
#include "PtyController.h"
#include "Time.h"

TEST(PrintLink, WithoutAPortNothingIsSent)
{
    PrintLink link;

    EXPECT_FALSE(link.hasPort());
    EXPECT_EQ(1, link.sendCommand("M5"));
    EXPECT_EQ(0, link.sendLine("\n")); // a count that a line of one byte would take for its own
    EXPECT_EQ(0, link.sendBlock("x", 1));
    EXPECT_EQ("", link.awaitReply());
}

TEST(PrintLink, PortIsInUseWhileSomebodyWaitsForAnAnswer)
{
    PtyController controller;
    controller.answerWith({""});
    PrintLink link;
    link.setPort(&controller.m_uart);
    EXPECT_FALSE(link.isPortInUse());
    std::thread waiter([&link] { EXPECT_EQ("ok\n", link.awaitReply()); });
    EXPECT_TRUE(eventually([&link] { return link.isPortInUse(); }));

    EXPECT_EQ(1, link.sendLine("\n"));
    EXPECT_TRUE(link.isPortInUse()) << "the waiter still does";
    link.setPort(nullptr);
    EXPECT_TRUE(link.isPortInUse()) << "of a port that was taken back, too";
    controller.say("ok\n");
    waiter.join();

    EXPECT_FALSE(link.isPortInUse());
}

TEST(PrintLink, LineBehindALineEndThatIsRefusedIsNotSentAtAll)
{
    PtyController controller;
    const std::string strFd = std::to_string(controller.m_uart.getFd());
    PrintLink link;
    link.setPort(&controller.m_uart);
    testing::internal::CaptureStdout();
    {
        const FaultScope fault(("write=" + strFd + ":1-2:EAGAIN").c_str());
        EXPECT_EQ(0, link.sendLine("\n"));

        EXPECT_EQ(0, link.sendLine("\n"));
        EXPECT_EQ(2U, faultHits());
    }
    (void)testing::internal::GetCapturedStdout();

    EXPECT_EQ("", controller.bytes());
}

TEST(PrintLink, ReplyToACommandMayFillTheBuffer)
{
    PtyController controller;
    controller.answerWith({std::string(70, 'x') + "\n"});
    PrintLink link;
    link.setPort(&controller.m_uart);

    testing::internal::CaptureStdout();
    EXPECT_EQ(0, link.sendCommand("M5"));
    (void)testing::internal::GetCapturedStdout();

    EXPECT_EQ("xxxxxx\n", link.awaitReply());
}

TEST(PrintLink, ReplyIsNotLoggedSinceReadsReportNoBytes)
{
    PtyController controller;
    PrintLink link;
    link.setPort(&controller.m_uart);
    const LogCapture log;

    testing::internal::CaptureStdout();
    EXPECT_EQ(0, link.sendCommand("M5"));
    EXPECT_EQ("M5\n\nsend length:3\n", testing::internal::GetCapturedStdout());
    controller.say("status:5\n");
    EXPECT_EQ("status:5\n", link.awaitReply());
    controller.say("status:5\n");
    char acReply[PrintLink::REPLY_SIZE] = {0};
    link.readReply(acReply, PrintLink::REPLY_SIZE, Time(10, 0));
    EXPECT_STREQ("status:5\n", acReply);

    EXPECT_EQ("", log.text());
}
