// SendQueueTcpClient: what waits leaves in batches, which may be cut anywhere.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "Fault.h"
#include "NetPair.h"
#include "QueueClient.h"
#include "SendQueueTcpClient.h"
#include "ShortSend.h"

TEST(SendQueueTcpClientBatch, WhatWaitsLeavesInOneCall)
{
    NetPair pair;
    QueueClient client(pair);
    SendQueueTcpClient::Item aItem[3];
    const char* const aText[] = {"head", "picture", "boundary"};
    for (int i = 0; i < 3; ++i) {
        aItem[i].data = block(aText[i]);
        aItem[i].nLength = static_cast<int>(strlen(aText[i]));
    }
    FaultScope fault("sendmsg:2-:EPIPE");

    EXPECT_TRUE(client.sendTogether(aItem, 3));

    EXPECT_EQ("headpictureboundary", readBytes(pair.m_far, 19));
    EXPECT_EQ(0U, faultHits()) << "one call";
    EXPECT_TRUE(client.isDrained());
}

TEST(SendQueueTcpClientBatch, SixteenPiecesLeaveInACall)
{
    const int SENT = 17;
    NetPair pair;
    QueueClient client(pair);
    SendQueueTcpClient::Item aItem[SENT];
    for (SendQueueTcpClient::Item& item : aItem) {
        item.data = block("x");
        item.nLength = 1;
    }
    FaultScope fault("sendmsg:2:EAGAIN");

    EXPECT_TRUE(client.sendTogether(aItem, SENT));

    EXPECT_EQ(1U, faultHits()) << "a second call, for the last piece";
    EXPECT_EQ(std::string(16, 'x'), readPending(pair.m_far));
}

TEST(SendQueueTcpClientBatch, ItemsThatCannotAllEnterTheQueueDoNotBegin)
{
    for (const char* pPlan : {"malloc:1:ENOMEM", "malloc:2:ENOMEM", "malloc:3:ENOMEM"}) {
        NetPair pair;
        QueueClient client(pair);
        SendQueueTcpClient::Item aItem[3];
        for (SendQueueTcpClient::Item& item : aItem) {
            item.data = block("x");
            item.nLength = 1;
        }
        {
            FaultScope fault(pPlan);
            EXPECT_FALSE(client.sendTogether(aItem, 3));
        }

        client.sendText("goes on");
        EXPECT_EQ("goes on", readBytes(pair.m_far, 7));
    }
}

TEST(SendQueueTcpClientBatch, BatchThatIsCutAnywhereGoesOnWhereItWas)
{
    const std::string strPiece(12000, 'p'); // a batch is more than the kernel takes
    NetPair pair;
    QueueClient client(pair);
    std::string strExpected;
    client.sendText(std::string(100000, 'x'));
    strExpected += std::string(100000, 'x');
    for (int i = 0; i < 50; ++i) { // three batches and a bit
        const std::string strText = std::to_string(i) + strPiece;
        client.sendText(strText);
        client.send(SafePointer_C<char>(), 10); // passed over
        client.sendText("");
        strExpected += strText;
    }

    std::string strGot;
    while (strGot.size() < strExpected.size()) {
        strGot += readPending(pair.m_far);
        if (pair.m_near.waitWritable(Time(0, 1000))) {
            ASSERT_EQ(0, client.write()); // the out event
        }
    }
    EXPECT_TRUE(strExpected == strGot);
    EXPECT_TRUE(client.isDrained());
}

TEST(SendQueueTcpClientBatch, BatchThatHasBegunTakesNothingMoreIn)
{
    NetPair pair;
    QueueClient client(pair);
    SendQueueTcpClient::Item aItem[2];
    const char* const aText[] = {"0123456789", "abc"};
    for (int i = 0; i < 2; ++i) {
        aItem[i].data = block(aText[i]);
        aItem[i].nLength = static_cast<int>(strlen(aText[i]));
    }
    const ShortSend shortSend(10); // the first item whole, nothing of the second
    EXPECT_TRUE(client.sendTogether(aItem, 2));
    client.sendText("next");

    EXPECT_EQ(0, client.write()); // the out event

    std::vector<std::vector<size_t>> vecGot;
    for (const ShortSend::Call& call : shortSend.calls()) {
        vecGot.push_back(call.vecLength);
    }
    EXPECT_EQ((std::vector<std::vector<size_t>>{{10, 3}, {3}, {4}}), vecGot);
    EXPECT_EQ("0123456789abcnext", readBytes(pair.m_far, 17));
}

TEST(SendQueueTcpClientBatch, RestOfABatchHoldsWhatIsLeftOfItOnly)
{
    // Cut within an item, behind one, within and behind two, and one byte before the end.
    for (const size_t uMost : {1U, 9U, 10U, 11U, 12U, 13U, 15U}) {
        NetPair pair;
        QueueClient client(pair);
        SendQueueTcpClient::Item aItem[3];
        const char* const aText[] = {"0123456789", "abc", "XYZ"};
        for (int i = 0; i < 3; ++i) {
            aItem[i].data = block(aText[i]);
            aItem[i].nLength = static_cast<int>(strlen(aText[i]));
        }
        std::vector<std::vector<size_t>> vecExpected = {{10, 3, 3}};
        {
            ShortSend shortSend(uMost);
            EXPECT_TRUE(client.sendTogether(aItem, 3));
            for (size_t uDone = uMost; uDone < 16; uDone += uMost) {
                EXPECT_FALSE(client.isDrained());
                ASSERT_EQ(0, client.write()); // the out event
                std::vector<size_t> vecLeft = {3};
                if (uDone < 10) {
                    vecLeft = {10 - uDone, 3, 3};
                } else if (uDone < 13) {
                    vecLeft = {13 - uDone, 3};
                } else {
                    vecLeft = {16 - uDone};
                }
                vecExpected.push_back(vecLeft);
            }

            std::vector<std::vector<size_t>> vecGot;
            for (const ShortSend::Call& call : shortSend.calls()) {
                vecGot.push_back(call.vecLength);
            }
            EXPECT_EQ(vecExpected, vecGot) << uMost;
        }

        EXPECT_TRUE(client.isDrained()) << uMost;
        client.sendText("!");
        EXPECT_EQ("0123456789abcXYZ!", readBytes(pair.m_far, 17)) << uMost;
    }
}

// MSG_EOR has what follows start a segment of its own.
TEST(SendQueueTcpClientBatch, BatchOfFourKilobytesEndsItsSegment)
{
    struct Case
    {
        std::vector<size_t> vecLength;
        int nFlags;
    };
    const Case aCase[] = {
        {{4095}, 0},          {{4096}, MSG_EOR}, {{100, 3995}, 0}, {{100, 3996}, MSG_EOR},
        {{4096, 1}, MSG_EOR},
    };
    for (const Case& entry : aCase) {
        NetPair pair;
        QueueClient client(pair);
        std::vector<SendQueueTcpClient::Item> vecItem;
        size_t uLength = 0;
        for (const size_t u : entry.vecLength) {
            vecItem.push_back({block(std::string(u, 'x')), static_cast<int>(u)});
            uLength += u;
        }
        {
            const ShortSend shortSend(uLength - 1);
            EXPECT_TRUE(client.sendTogether(vecItem.data(), vecItem.size()));
            EXPECT_EQ(0, client.write());

            ASSERT_EQ(2U, shortSend.calls().size());
            EXPECT_EQ(entry.nFlags, shortSend.calls()[0].nFlags) << uLength;
            EXPECT_EQ(entry.nFlags, shortSend.calls()[1].nFlags) << uLength << ", its last byte";
        }
        EXPECT_EQ(uLength, readBytes(pair.m_far, uLength).size());
    }
}

TEST(SendQueueTcpClientBatch, BatchThatFindsNoRoomWaitsButForItsFirst)
{
    NetPair pair;
    QueueClient client(pair);
    const size_t uBefore = fillUp(pair.m_near);
    SendQueueTcpClient::Item aItem[3];
    const char* const aText[] = {"head", "picture", "boundary"};
    for (int i = 0; i < 3; ++i) {
        aItem[i].data = block(aText[i]);
        aItem[i].nLength = static_cast<int>(strlen(aText[i]));
    }

    EXPECT_TRUE(client.sendTogether(aItem, 3));
    EXPECT_EQ(2, client.getQueueLength());
    client.sendText("more");
    EXPECT_EQ(3, client.getQueueLength());

    EXPECT_EQ(uBefore, readBytes(pair.m_far, uBefore).size());
    ASSERT_TRUE(pair.m_near.waitWritable(Time(30, 0)));
    FaultScope fault("sendmsg:2-:EPIPE");
    ASSERT_EQ(0, client.write()); // the out event
    EXPECT_EQ("headpictureboundarymore", readBytes(pair.m_far, 23));
    EXPECT_EQ(0U, faultHits()) << "one call";
    EXPECT_EQ(0, client.getQueueLength());
    EXPECT_TRUE(client.isDrained());
}
