// The bytes of a snapshot's answer.
#include "HttpSnapClient.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "CardFolder.h"
#include "FakeSystem.h"
#include "HttpSnapClientFixture.h"

namespace {

using HttpSnapClientAnswer = HttpSnapClientFixture;

} // namespace

TEST_F(HttpSnapClientAnswer, AnswersAndSavesThePicture)
{
    CardFolder card("camera");

    expectAnswered("a.jpg");

    EXPECT_EQ(payload(5000), card.read("a.jpg"));
}

TEST_F(HttpSnapClientAnswer, NoFileNameIsPhoto)
{
    for (const char* pQuery : {"", "?filename=", "?filename", "?mode=correction"}) {
        CardFolder card("camera");
        Connection connection;
        ASSERT_EQ(0, connection.request(request(pQuery)));
        deliver();
        std::string strStream = connection.receive();
        EXPECT_EQ(payload(5000), takeAnswer(strStream, 5000, "photo.jpg")) << pQuery;
        EXPECT_EQ(payload(5000), card.read("photo.jpg")) << pQuery;
    }
}

TEST_F(HttpSnapClientAnswer, DeliberateEveryFrameThatFindsTheQueueEmptyIsAnotherAnswer)
{
    CardFolder card("camera");
    ASSERT_EQ(0, m_connection.request(request("?filename=a.jpg")));
    for (unsigned i = 0; i < 3; ++i) {
        PVENC_FRAME_T frame = makeFrame(1000 + i, 28, 640, 480, i);
        FakeSystem::deliver(frame);
        EXPECT_EQ(payload(1000 + i, i), card.read("a.jpg")) << "overwritten";
    }

    std::string strStream = m_connection.receive();
    for (unsigned i = 0; i < 3; ++i) {
        EXPECT_EQ(payload(1000 + i, i), takeAnswer(strStream, 1000 + i, "a.jpg"));
    }
    EXPECT_EQ("", strStream);
}

TEST_F(HttpSnapClientAnswer, FrameIsSkippedWhileAnAnswerWaits)
{
    CardFolder card("camera");
    Connection slow(2048);
    ASSERT_EQ(0, slow.request(request("?filename=a.jpg")));
    // The first two fill the socket and begin to be sent; then one waits.
    while (0 == slow.client().getQueueLength()) {
        deliver(50000);
    }
    const int nWaiting = slow.client().getQueueLength();
    std::filesystem::remove(card.path() / "a.jpg");

    deliver(50000);

    EXPECT_EQ(nWaiting, slow.client().getQueueLength());
    EXPECT_FALSE(card.has("a.jpg"));
    std::string strStream = slow.receiveAll();
    while (!strStream.empty()) {
        ASSERT_EQ(payload(50000), takeAnswer(strStream, 50000, "a.jpg"));
    }
}

TEST_F(HttpSnapClientAnswer, FrameIsSkippedWhileASingleItemWaits)
{
    CardFolder card("camera");
    Connection slow(2048);
    ASSERT_EQ(0, slow.request(request("?filename=a.jpg")));
    const SafePointer_C<char> block(static_cast<char*>(calloc(1, 200000)));
    slow.client().send(block, 200000); // more than the socket takes: this one is being sent
    slow.client().send(block, 1);
    ASSERT_EQ(1, slow.client().getQueueLength());

    deliver();

    EXPECT_EQ(1, slow.client().getQueueLength());
    EXPECT_FALSE(card.has("a.jpg"));
}

TEST_F(HttpSnapClientAnswer, PictureIsAnsweredBeforeItIsSaved)
{
    CardFolder card("camera");
    ASSERT_EQ(0, m_connection.request(request("?filename=a.jpg")));
    const CallJournal journal("sendmsg access fwrite");

    deliver();

    const std::vector<std::string> vecLine = CallJournal::lines();
    ASSERT_FALSE(vecLine.empty());
    EXPECT_EQ(0U, vecLine.front().find("sendmsg ")) << vecLine.front();
    EXPECT_EQ("fwrite", vecLine.back());
}

TEST_F(HttpSnapClientAnswer, CorrectionAnswersTheCorrectedPictureAndSavesTheRawOne)
{
    CardFolder card("camera");
    FakeSystem::setCorrection([](PVENC_FRAME_T& in, PVENC_FRAME_T& out) {
        EXPECT_EQ(5000u, in.get()->u32Size);
        EXPECT_EQ(nullptr, out.get());
        out = makeFrame(777, 28, 640, 480, 99);
    });
    ASSERT_EQ(0, m_connection.request(request("?mode=correction&filename=a.jpg")));
    deliver();

    std::string strStream = m_connection.receive();
    EXPECT_EQ(payload(777, 99), takeAnswer(strStream, 777, "a.jpg"));
    EXPECT_EQ("", strStream);
    EXPECT_EQ(payload(5000), card.read("a.jpg"));
}

TEST_F(HttpSnapClientAnswer, OtherModesDoNotCorrect)
{
    FakeSystem::setCorrection([](PVENC_FRAME_T&, PVENC_FRAME_T&) { FAIL(); });
    for (const char* pMode : {"Correction", "correction2", "1", "correctio"}) {
        Connection connection;
        ASSERT_EQ(0, connection.request(request(std::string("?mode=") + pMode)));
        deliver();
        std::string strStream = connection.receive();
        EXPECT_EQ(payload(5000), takeAnswer(strStream, 5000, "photo.jpg"));
    }
}

TEST_F(HttpSnapClientAnswer, EmptyCorrectedPictureIsAnsweredWithoutABody)
{
    CardFolder card("camera");
    FakeSystem::setCorrection([](PVENC_FRAME_T&, PVENC_FRAME_T&) {});
    testing::internal::CaptureStdout();
    ASSERT_EQ(0, m_connection.request(request("?mode=correction&filename=a.jpg")));
    deliver();

    std::string strStream = m_connection.receive();
    EXPECT_EQ("", takeAnswer(strStream, 0, "a.jpg"));
    EXPECT_EQ("", strStream);
    EXPECT_EQ(payload(5000), card.read("a.jpg"));
    EXPECT_EQ(0, m_connection.client().getQueueLength());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST_F(HttpSnapClientAnswer, AnswerWithoutAPictureWaitsAsOneItem)
{
    FakeSystem::setCorrection([](PVENC_FRAME_T&, PVENC_FRAME_T&) {});
    Connection slow(2048);
    ASSERT_EQ(0, slow.request(request("?mode=correction")));
    const SafePointer_C<char> block(static_cast<char*>(calloc(1, 200000)));
    slow.client().send(block, 200000); // more than the socket takes: this one is being sent
    ASSERT_EQ(0, slow.client().getQueueLength());

    deliver();

    EXPECT_EQ(1, slow.client().getQueueLength());
}

TEST_F(HttpSnapClientAnswer, FileNameLongerThanTheHeadersBlockIsWhole)
{
    expectAnswered(std::string(1800, 'n'));
}

TEST_F(HttpSnapClientAnswer, StoppedResponderIsNotReached)
{
    CardFolder card("camera");
    ASSERT_EQ(0, m_connection.request(request("?filename=a.jpg")));
    EXPECT_EQ(0, m_connection.client().stop());
    deliver();

    EXPECT_EQ("", m_connection.receive());
    EXPECT_TRUE(card.isEmpty());
}

TEST_F(HttpSnapClientAnswer, StreamIsAsTheCallerSays)
{
    FakeSystem::reset();
    HttpSnapClient responder(m_connection.client(), 1, "a.jpg", false);

    EXPECT_EQ(0, responder.start());

    EXPECT_EQ("1 ", FakeSystem::streams());
    EXPECT_EQ(0, responder.stop());
}

TEST_F(HttpSnapClientAnswer, StopReturnsSuccess)
{
    HttpSnapClient responder(m_connection.client(), 0, "a.jpg", false);

    EXPECT_EQ(0, responder.start());
    EXPECT_EQ(0, responder.stop());
}

TEST_F(HttpSnapClientAnswer, OtherEventIsABadCast)
{
    HttpSnapClient snap(m_connection.client(), 0, "a.jpg", false);
    Event other;

    EXPECT_THROW((void)snap.onSnapFrameEvent(&other), std::bad_cast);
}
