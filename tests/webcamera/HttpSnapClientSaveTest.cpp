// The file that a snapshot saves, and what is never written.
#include <filesystem>
#include <string>

#include <sys/stat.h>

#include <gtest/gtest.h>

#include "CardFolder.h"
#include "Descriptors.h"
#include "FakeSystem.h"
#include "Fault.h"
#include "HttpSnapClientFixture.h"
#include "StringBlock.h"

namespace {

class HttpSnapClientSave : public HttpSnapClientFixture
{
protected:
    void expectAnsweredWithoutALine(const std::string& strFileName)
    {
        ASSERT_EQ(0, m_connection.request(request("?filename=" + strFileName)));
        m_log.clear();
        deliver();

        std::string strStream = m_connection.receive();
        EXPECT_EQ(payload(5000), takeAnswer(strStream, 5000, strFileName));
        EXPECT_EQ("", m_log.text());
    }
};

} // namespace

TEST_F(HttpSnapClientSave, WithoutTheCardItIsAnsweredAndNothingIsSavedOrLogged)
{
    ASSERT_FALSE(std::filesystem::exists("/tmp/run"));

    expectAnsweredWithoutALine("a.jpg");

    EXPECT_FALSE(std::filesystem::exists("/tmp/run"));
}

TEST_F(HttpSnapClientSave, ReadOnlyCardIsAnsweredAndNothingIsLogged)
{
    CardFolder card("camera");
    ASSERT_TRUE(card.mountTmpfs(MS_RDONLY, ""));

    expectAnsweredWithoutALine("a.jpg");

    EXPECT_TRUE(card.isEmpty());
}

TEST_F(HttpSnapClientSave, FullCardIsLoggedWithThePathAndAnswered)
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

TEST_F(HttpSnapClientSave, PictureThatJustFitsIsSavedWithoutALine)
{
    CardFolder card("camera");
    ASSERT_TRUE(card.mountTmpfs(0, "size=8k"));
    ASSERT_EQ(0, m_connection.request(request("?filename=a.jpg")));
    m_log.clear();
    deliver(8192);

    EXPECT_EQ("", m_log.text());
    EXPECT_EQ(payload(8192), card.read("a.jpg"));
}

TEST_F(HttpSnapClientSave, SlashInTheFileNameReachesASubfolder)
{
    CardFolder card("camera");
    std::filesystem::create_directory(card.path() / "sub");

    expectAnswered("sub/a.jpg");
    EXPECT_EQ(payload(5000), card.read("sub/a.jpg"));
}

TEST_F(HttpSnapClientSave, FileNameIsUsedUnchangedBelowTheFolder)
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

TEST_F(HttpSnapClientSave, FileNameThatLeavesTheFolderIsAnsweredAndNotSaved)
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

TEST_F(HttpSnapClientSave, SymbolicLinkIsAnsweredAndNotSavedThrough)
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

TEST_F(HttpSnapClientSave, SmallerPictureReplacesALargerOne)
{
    CardFolder card("camera");
    expectAnswered("a.jpg", 5000);

    expectAnswered("a.jpg", 300);

    EXPECT_EQ(payload(300), card.read("a.jpg"));
}

TEST_F(HttpSnapClientSave, EmptyPictureLeavesAnEmptyFile)
{
    CardFolder card("camera");
    card.write("a.jpg", "old");

    expectAnswered("a.jpg", 0);

    EXPECT_EQ("", card.read("a.jpg"));
}

TEST_F(HttpSnapClientSave, FolderThatIsNotThereOrNotWritableIsNotSavedTo)
{
    CardFolder card("camera");
    for (const char* pPlan : {"access:1:ENOENT", "access:2:EROFS"}) {
        const FaultScope fault(pPlan);

        expectAnswered("a.jpg");

        EXPECT_EQ(1u, faultHits()) << pPlan;
        EXPECT_TRUE(card.isEmpty()) << pPlan;
    }
}

TEST_F(HttpSnapClientSave, WithoutMemoryForAStreamTheFormerPictureStays)
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

TEST_F(HttpSnapClientSave, FileNameThatCannotBeOpenedIsAnsweredAndNothingIsLogged)
{
    CardFolder card("camera");

    expectAnsweredWithoutALine("missing/a.jpg");

    EXPECT_TRUE(card.isEmpty());
}

TEST_F(HttpSnapClientSave, FifoAsTheTargetDoesNotBlockAndStays)
{
    CardFolder card("camera");
    ASSERT_EQ(0, mkfifo((card.path() / "pipe").c_str(), 0666));

    expectAnswered("pipe");

    EXPECT_TRUE(std::filesystem::is_fifo(card.path() / "pipe"));
}

TEST_F(HttpSnapClientSave, FolderAsTheTargetIsNotSavedTo)
{
    CardFolder card("camera");
    std::filesystem::create_directory(card.path() / "sub");

    expectAnswered("sub");
    EXPECT_TRUE(std::filesystem::is_empty(card.path() / "sub"));
}

TEST_F(HttpSnapClientSave, WithoutMemoryForTheNameItIsAnsweredAndNotSaved)
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
