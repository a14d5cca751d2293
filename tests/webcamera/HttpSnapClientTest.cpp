// The bytes of a snapshot's answer, and the file that it saves.
#include "HttpSnapClient.h"

#include <cstdlib>
#include <ctime>
#include <typeinfo>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "CallJournal.h"
#include "CardFolder.h"
#include "Connection.h"
#include "Descriptors.h"
#include "FakeSystem.h"
#include "Fault.h"
#include "LogCapture.h"
#include "Mask.h"
#include "StringBlock.h"

namespace {

std::string request(const std::string& strQuery)
{
    return "GET /snap" + strQuery + " HTTP/1.1\r\n\r\n";
}

/** The golden header; its two varying numbers are masked. */
std::string golden(size_t uSize, const std::string& strFileName)
{
    return "HTTP/1.0 200 OK\r\n"
           "Connection: close\r\n"
           "Server: MJPG-Streamer/0.2\r\n"
           "Cache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\n"
           "Pragma: no-cache\r\n"
           "Expires: Mon, 3 Jan 2000 12:34:56 GMT\r\n"
           "Content-type: image/jpeg\r\n"
           "Content-Length: " +
           std::to_string(uSize) +
           "\r\n"
           "X-Timestamp: ##########.######\r\n"
           "Filename: " +
           strFileName +
           "\r\n"
           "\r\n";
}

/** Take one answer off the front; "" and a failure unless it is one. */
std::string takeAnswer(std::string& strStream, size_t uSize, const std::string& strFileName)
{
    const size_t uHead = strStream.find("\r\n\r\n") + 4;
    std::string strHead = strStream.substr(0, uHead);
    const long lSeconds = maskNumber(strHead, "X-Timestamp: ", ".");
    EXPECT_LE(lSeconds, preciseSeconds());
    EXPECT_GE(lSeconds, preciseSeconds() - 60);
    EXPECT_GE(maskNumber(strHead, "##.", "\r\n"), 0);
    if (golden(uSize, strFileName) != strHead) {
        EXPECT_EQ(golden(uSize, strFileName), strHead);
        return "";
    }
    EXPECT_GE(strStream.size(), uHead + uSize);
    const std::string strPicture = strStream.substr(uHead, uSize);
    strStream.erase(0, uHead + uSize);
    return strPicture;
}

class HttpSnapClientAnswer : public testing::Test
{
protected:
    void SetUp() override
    {
        FakeSystem::reset();
    }

    void deliver(uint32_t u32Size = 5000)
    {
        PVENC_FRAME_T frame = makeFrame(u32Size);
        FakeSystem::deliver(frame);
    }

    /** Request a snapshot, deliver a frame, and expect it as the answer. */
    void expectAnswered(const std::string& strFileName, uint32_t u32Size = 5000)
    {
        Connection connection;
        ASSERT_EQ(0, connection.request(request("?filename=" + strFileName)));
        deliver(u32Size);
        std::string strStream = connection.receive();
        EXPECT_TRUE(payload(u32Size) == takeAnswer(strStream, u32Size, strFileName));
        EXPECT_EQ("", strStream);
    }

    Connection m_connection;
    LogCapture m_log;
};

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

TEST_F(HttpSnapClientAnswer, EveryFrameThatFindsTheQueueEmptyIsAnotherAnswer)
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

TEST_F(HttpSnapClientAnswer, WithoutTheCardItIsAnsweredAndNothingIsSavedOrLogged)
{
    ASSERT_FALSE(std::filesystem::exists("/tmp/run"));
    ASSERT_EQ(0, m_connection.request(request("?filename=a.jpg")));
    m_log.clear();
    deliver();

    std::string strStream = m_connection.receive();
    EXPECT_EQ(payload(5000), takeAnswer(strStream, 5000, "a.jpg"));
    EXPECT_EQ("", m_log.text());
    EXPECT_FALSE(std::filesystem::exists("/tmp/run"));
}

TEST_F(HttpSnapClientAnswer, ReadOnlyCardIsAnsweredAndNothingIsLogged)
{
    CardFolder card("camera");
    ASSERT_TRUE(card.mountTmpfs(MS_RDONLY, ""));
    ASSERT_EQ(0, m_connection.request(request("?filename=a.jpg")));
    m_log.clear();
    deliver();

    std::string strStream = m_connection.receive();
    EXPECT_EQ(payload(5000), takeAnswer(strStream, 5000, "a.jpg"));
    EXPECT_EQ("", m_log.text());
    EXPECT_TRUE(card.isEmpty());
}

TEST_F(HttpSnapClientAnswer, FullCardIsLoggedWithThePathAndAnswered)
{
    CardFolder card("camera");
    ASSERT_TRUE(card.mountTmpfs(0, "size=8k"));
    for (const uint32_t u32Size : {50000u, 8193u}) { // the last byte only does not fit
        Connection connection;
        ASSERT_EQ(0, connection.request(request("?filename=a.jpg")));
        m_log.clear();
        deliver(u32Size);

        std::string strStream = connection.receive();
        EXPECT_EQ(payload(u32Size), takeAnswer(strStream, u32Size, "a.jpg"));
        EXPECT_EQ("[debug] [webcamera/HttpSnapClient ] [save] Save "
                  "/tmp/run/mountd/mmcblk0p1/kestrel-server/camera//a.jpg"
                  " : TF-Card has no enough space !!!\n",
                  m_log.text());
    }
}

TEST_F(HttpSnapClientAnswer, PictureThatJustFitsIsSavedWithoutALine)
{
    CardFolder card("camera");
    ASSERT_TRUE(card.mountTmpfs(0, "size=8k"));
    ASSERT_EQ(0, m_connection.request(request("?filename=a.jpg")));
    m_log.clear();
    deliver(8192);

    EXPECT_EQ("", m_log.text());
    EXPECT_EQ(payload(8192), card.read("a.jpg"));
}

TEST_F(HttpSnapClientAnswer, SlashInTheFileNameReachesASubfolder)
{
    CardFolder card("camera");
    std::filesystem::create_directory(card.path() / "sub");

    expectAnswered("sub/a.jpg");
    EXPECT_EQ(payload(5000), card.read("sub/a.jpg"));
}

TEST_F(HttpSnapClientAnswer, FileNameIsUsedUnchangedBelowTheFolder)
{
    CardFolder card("camera");
    std::filesystem::create_directory(card.path() / "sub");

    for (const char* pName : {"$(id);`id`|'\"%41+.jpg", "-rf", ".hidden", "...", "..a"}) {
        expectAnswered(pName);
        EXPECT_EQ(payload(5000), card.read(pName)) << pName;
    }
    expectAnswered("sub/../a.jpg");
    EXPECT_EQ(payload(5000), card.read("a.jpg"));
}

TEST_F(HttpSnapClientAnswer, FileNameThatLeavesTheFolderIsAnsweredAndNotSaved)
{
    CardFolder card("camera");
    card.write("../outside.jpg", "old");

    for (const char* pName : {"../outside.jpg", "../new.jpg", "../camera/a.jpg", "./../new.jpg",
                              "../../../../../../tmp/new.jpg"}) {
        expectAnswered(pName);
    }

    EXPECT_EQ("old", card.read("../outside.jpg"));
    EXPECT_FALSE(card.has("../new.jpg"));
    EXPECT_FALSE(std::filesystem::exists("/tmp/new.jpg"));
    EXPECT_TRUE(card.isEmpty());
    EXPECT_EQ(std::string::npos, m_log.text().find("Save"));
}

TEST_F(HttpSnapClientAnswer, SymbolicLinkIsAnsweredAndNotSavedThrough)
{
    CardFolder card("camera");
    card.write("file.jpg", "old");
    std::filesystem::create_directory(card.path() / "sub");
    std::filesystem::create_symlink("file.jpg", card.path() / "link.jpg");
    std::filesystem::create_symlink("missing.jpg", card.path() / "dangling.jpg");
    std::filesystem::create_directory_symlink("sub", card.path() / "folder");

    for (const char* pName : {"link.jpg", "dangling.jpg", "folder/a.jpg", "folder/../b.jpg"}) {
        expectAnswered(pName);
    }

    EXPECT_EQ("old", card.read("file.jpg"));
    EXPECT_FALSE(card.has("missing.jpg"));
    EXPECT_TRUE(std::filesystem::is_empty(card.path() / "sub"));
    EXPECT_FALSE(card.has("b.jpg"));
    EXPECT_TRUE(std::filesystem::is_symlink(card.path() / "link.jpg"));
}

TEST_F(HttpSnapClientAnswer, SmallerPictureReplacesALargerOne)
{
    CardFolder card("camera");
    expectAnswered("a.jpg", 5000);

    expectAnswered("a.jpg", 300);

    EXPECT_EQ(payload(300), card.read("a.jpg"));
}

TEST_F(HttpSnapClientAnswer, WithoutMemoryForAStreamTheFormerPictureStays)
{
    CardFolder card("camera");
    card.write("a.jpg", "old");
    {
        FaultScope fault("fdopen:1:ENOMEM");
        expectAnswered("a.jpg");
        EXPECT_EQ(1u, faultHits());
    }

    EXPECT_EQ("old", card.read("a.jpg"));
    EXPECT_EQ(0u, openDescriptors("/a.jpg").size());
}

TEST_F(HttpSnapClientAnswer, FileNameThatCannotBeOpenedIsAnsweredAndNothingIsLogged)
{
    CardFolder card("camera");
    ASSERT_EQ(0, m_connection.request(request("?filename=missing/a.jpg")));
    m_log.clear();
    deliver();

    std::string strStream = m_connection.receive();
    EXPECT_EQ(payload(5000), takeAnswer(strStream, 5000, "missing/a.jpg"));
    EXPECT_EQ("", m_log.text());
    EXPECT_TRUE(card.isEmpty());
}

TEST_F(HttpSnapClientAnswer, FifoAsTheTargetDoesNotBlockAndStays)
{
    CardFolder card("camera");
    ASSERT_EQ(0, mkfifo((card.path() / "pipe").c_str(), 0666));

    expectAnswered("pipe");

    EXPECT_TRUE(std::filesystem::is_fifo(card.path() / "pipe"));
}

TEST_F(HttpSnapClientAnswer, FolderAsTheTargetIsNotSavedTo)
{
    CardFolder card("camera");
    std::filesystem::create_directory(card.path() / "sub");

    expectAnswered("sub");
    EXPECT_TRUE(std::filesystem::is_empty(card.path() / "sub"));
}

TEST_F(HttpSnapClientAnswer, FileNameLongerThanTheHeadersBlockIsWhole)
{
    expectAnswered(std::string(1800, 'n'));
}

TEST_F(HttpSnapClientAnswer, WithoutMemoryForTheNameItIsAnsweredAndNotSaved)
{
    CardFolder card("camera");
    const std::string strFolder(200, 'd');
    std::filesystem::create_directory(card.path() / strFolder);
    ASSERT_EQ(0, m_connection.request(request("?filename=" + strFolder + "/a.jpg")));
    PVENC_FRAME_T frame = makeFrame(5000);
    {
        FaultScope fault(("malloc=" + std::to_string(stringBlock(200)) + ":1:ENOMEM").c_str());
        FakeSystem::deliver(frame);
        EXPECT_EQ(1u, faultHits());
    }

    std::string strStream = m_connection.receive();
    EXPECT_EQ(payload(5000), takeAnswer(strStream, 5000, strFolder + "/a.jpg"));
    EXPECT_FALSE(card.has(strFolder + "/a.jpg"));

    FakeSystem::deliver(frame);
    EXPECT_EQ(payload(5000), card.read(strFolder + "/a.jpg")) << "the next picture is saved";
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
