// Files: modes, reading and writing, the peculiar seek, directories, and temporary files.
#include "File.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptors.h"
#include "Fault.h"
#include "Pattern.h"
#include "ScratchFolder.h"
#include "TempFile.h"

namespace {

bool exists(const std::string& strPath)
{
    return 0 == ::access(strPath.c_str(), F_OK);
}

} // namespace

class FileOnDisk : public testing::Test
{
protected:
    std::string at(const char* pName) const
    {
        return (m_folder.path() / pName).string();
    }

    ScratchFolder m_folder;
    File m_file;
};

TEST_F(FileOnDisk, FlagsHaveTheirNumbers)
{
    EXPECT_EQ(1, FILE_FLAG_READ);
    EXPECT_EQ(2, FILE_FLAG_WRITE);
    EXPECT_EQ(4, FILE_FLAG_ACCEPTED);
    EXPECT_EQ(8, FILE_FLAG_BINARY);
    EXPECT_EQ(16, FILE_FLAG_APPEND);
    EXPECT_EQ(64, FILE_FLAG_CREATE);
}

TEST_F(FileOnDisk, ModeFollowsTheFlags)
{
    EXPECT_EQ("wt", File::mode(70));
    EXPECT_EQ("wt", File::mode(2));
    EXPECT_EQ("rt", File::mode(1));
    EXPECT_EQ("wt+", File::mode(3));
    EXPECT_EQ("rt", File::mode(0));
    EXPECT_EQ("rt", File::mode(4));
    EXPECT_EQ("wt", File::mode(64));
    EXPECT_EQ("wt", File::mode(65)); // create and read alone add no +
    EXPECT_EQ("rb", File::mode(1 | 8));
    EXPECT_EQ("wb+", File::mode(3 | 8));
    EXPECT_EQ("at", File::mode(16));
    EXPECT_EQ("ab+", File::mode(3 | 8 | 16));
}

TEST_F(FileOnDisk, DeliberateAcceptedFlagHasNoEffect)
{
    for (const int nFlags : {0, 1, 2, 3, 8, 16, 64, 66, 3 | 8, 3 | 8 | 16}) {
        EXPECT_EQ(File::mode(nFlags), File::mode(nFlags | 4)) << nFlags;
    }
}

TEST_F(FileOnDisk, WriteThenRead)
{
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_WRITE));
    EXPECT_EQ(5u, m_file.write("hello", 5));
    EXPECT_EQ(9, m_file.writeFormat(" %d %s", 42, "world"));
    EXPECT_EQ(0, m_file.flush());
    EXPECT_EQ("hello 42 world", m_folder.read("file"));
    m_file.close();
    EXPECT_EQ(nullptr, m_file.getStream());

    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_READ));
    char acWord[8] = {0};
    int nNumber = 0;
    EXPECT_EQ(2, m_file.readFormat("%7s %d", acWord, &nNumber));
    EXPECT_STREQ("hello", acWord);
    EXPECT_EQ(42, nNumber);
    char acRest[16] = {0};
    EXPECT_FALSE(m_file.isEnd());
    EXPECT_EQ(6u, m_file.read(acRest, sizeof(acRest)));
    EXPECT_STREQ(" world", acRest);
    EXPECT_TRUE(m_file.isEnd());
}

TEST_F(FileOnDisk, AppendGoesOnAtTheEndAndWriteTruncates)
{
    m_folder.write("file", "old");
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_APPEND));
    EXPECT_EQ(4u, m_file.write(" new", 4));
    m_file.close();
    EXPECT_EQ("old new", m_folder.read("file"));

    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_WRITE));
    m_file.close();
    EXPECT_EQ("", m_folder.read("file"));
}

TEST_F(FileOnDisk, OpenFailures)
{
    EXPECT_EQ(-1, m_file.open(nullptr, FILE_FLAG_READ));
    EXPECT_EQ(-1, m_file.open(at("missing").c_str(), FILE_FLAG_READ));
    EXPECT_EQ(at("missing"), m_file.getPath());
    EXPECT_EQ(nullptr, m_file.getStream());
}

TEST_F(FileOnDisk, WithoutMemoryOpeningFails)
{
    const std::string strPath = m_folder.path().string() + "/" + std::string(200, 'n');
    File file;
    for (unsigned i = 1; i < 3; ++i) {
        const std::string strPlan = "malloc:" + std::to_string(i) + ":ENOMEM";
        FaultScope fault(strPlan.c_str());
        EXPECT_EQ(-1, file.open(strPath.c_str(), FILE_FLAG_WRITE)) << i;
        EXPECT_EQ(1u, faultHits()) << i;
    }

    EXPECT_EQ(0, file.open(strPath.c_str(), FILE_FLAG_WRITE));
}

TEST_F(FileOnDisk, SecondOpenClosesTheFirstFile)
{
    m_folder.write("one", "1");
    m_folder.write("two", "2");
    ASSERT_EQ(0, m_file.open(at("one").c_str(), FILE_FLAG_READ));
    const int nFirst = fileno(m_file.getStream());

    ASSERT_EQ(0, m_file.open(at("two").c_str(), FILE_FLAG_READ));

    EXPECT_EQ(nFirst, fileno(m_file.getStream())); // the lowest free number again
}

TEST_F(FileOnDisk, StreamIsClosedWithItsObject)
{
    {
        File file;
        ASSERT_EQ(0, file.open(at("file").c_str(), FILE_FLAG_WRITE));
        EXPECT_EQ(1u, openDescriptors(at("file")).size());
        EXPECT_EQ(4u, file.write("text", 4));
    }

    EXPECT_EQ(0u, openDescriptors(at("file")).size());
    EXPECT_EQ("text", m_folder.read("file"));
}

TEST_F(FileOnDisk, DescriptorIsCloseOnExec)
{
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_WRITE | FILE_FLAG_READ));

    EXPECT_EQ(FD_CLOEXEC, fcntl(fileno(m_file.getStream()), F_GETFD));
}

TEST_F(FileOnDisk, ReadLineKeepsLineEndsAndEndsWithMinusOne)
{
    m_folder.write("file", "first\nsecond line\nlast");
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_READ));
    char acLine[8];

    EXPECT_EQ(0, m_file.readLine(acLine, sizeof(acLine)));
    EXPECT_STREQ("first\n", acLine);
    EXPECT_EQ(0, m_file.readLine(acLine, sizeof(acLine)));
    EXPECT_STREQ("second ", acLine);
    EXPECT_EQ(0, m_file.readLine(acLine, sizeof(acLine)));
    EXPECT_STREQ("line\n", acLine);
    EXPECT_EQ(0, m_file.readLine(acLine, sizeof(acLine)));
    EXPECT_STREQ("last", acLine);
    memset(acLine, 'x', sizeof(acLine));
    EXPECT_EQ(-1, m_file.readLine(acLine, sizeof(acLine)));
    const char acZero[8] = {0};
    EXPECT_EQ(0, memcmp(acZero, acLine, sizeof(acLine)));
}

TEST_F(FileOnDisk, ReadLineBehindTheLastLineEndClearsTheBuffer)
{
    m_folder.write("file", "only\n");
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_READ));
    char acLine[8];
    EXPECT_EQ(0, m_file.readLine(acLine, sizeof(acLine)));

    EXPECT_EQ(-1, m_file.readLine(acLine, sizeof(acLine)));
    EXPECT_STREQ("", acLine);
    EXPECT_EQ(-1, m_file.readLine(acLine, 0));
}

TEST_F(FileOnDisk, ReadLineIntoOneByteHasRoomForNothing)
{
    m_folder.write("file", "line\n");
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_READ));
    char acLine[8] = "old";

    EXPECT_EQ(0, m_file.readLine(acLine, 1));
    EXPECT_STREQ("", acLine);
    EXPECT_EQ(0, m_file.readLine(acLine, sizeof(acLine)));
    EXPECT_STREQ("line\n", acLine);
}

TEST_F(FileOnDisk, DeliberateSeekCountsFromTheCurrentPositionWhateverTheOrigin)
{
    m_folder.write("file", std::string(105, '.'));
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_READ));
    ASSERT_TRUE(m_file.seek(100, SEEK_SET));
    EXPECT_EQ(100, m_file.tell());

    EXPECT_TRUE(m_file.seek(10, SEEK_SET));
    EXPECT_EQ(105, m_file.tell()); // clamped to the length
    EXPECT_TRUE(m_file.seek(-5, SEEK_SET));
    EXPECT_EQ(100, m_file.tell());
    EXPECT_TRUE(m_file.seek(-1000, SEEK_SET));
    EXPECT_EQ(0, m_file.tell()); // clamped to 0
}

TEST_F(FileOnDisk, SeekHandsTheTargetOverWithTheOriginUnchanged)
{
    m_folder.write("file", std::string(105, '.'));
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_READ));
    ASSERT_TRUE(m_file.seek(20, SEEK_SET));

    // 20 + 10 from the current position, and that from the current position again.
    EXPECT_TRUE(m_file.seek(10, SEEK_CUR));
    EXPECT_EQ(50, m_file.tell());
    EXPECT_TRUE(m_file.seek(0, SEEK_END));
    EXPECT_EQ(155, m_file.tell());
}

TEST_F(FileOnDisk, SeekByTheLargestOffsetsIsClamped)
{
    m_folder.write("file", std::string(105, '.'));
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_READ));
    ASSERT_TRUE(m_file.seek(5, SEEK_SET));

    EXPECT_TRUE(m_file.seek(LONG_MAX, SEEK_SET));
    EXPECT_EQ(105, m_file.tell());
    EXPECT_TRUE(m_file.seek(LONG_MIN, SEEK_SET));
    EXPECT_EQ(0, m_file.tell());
}

TEST_F(FileOnDisk, LengthLeavesThePositionAlone)
{
    ASSERT_EQ(0, m_file.open(at("file").c_str(), FILE_FLAG_WRITE));
    ASSERT_EQ(10u, m_file.write("0123456789", 10));
    ASSERT_TRUE(m_file.seek(-6, SEEK_SET));

    EXPECT_EQ(10, m_file.length());
    EXPECT_EQ(4, m_file.tell());
}

TEST_F(FileOnDisk, PipeHasNoLength)
{
    ASSERT_EQ(0, mkfifo(at("pipe").c_str(), 0600));
    ASSERT_EQ(0, m_file.open(at("pipe").c_str(), FILE_FLAG_READ | FILE_FLAG_WRITE));

    EXPECT_EQ(-1, m_file.length());
}

TEST_F(FileOnDisk, WithoutAStreamEverythingFailsQuietly)
{
    char acBuffer[8] = "old";
    int nNumber = 0;

    EXPECT_EQ(0u, m_file.read(acBuffer, sizeof(acBuffer)));
    EXPECT_EQ(-1, m_file.readLine(acBuffer, sizeof(acBuffer)));
    EXPECT_STREQ("", acBuffer);
    EXPECT_EQ(0u, m_file.write("x", 1));
    EXPECT_EQ(-1, m_file.writeFormat("x"));
    EXPECT_EQ(-1, m_file.readFormat("%d", &nNumber));
    EXPECT_EQ(-1, m_file.flush());
    EXPECT_FALSE(m_file.seek(0, SEEK_SET));
    EXPECT_EQ(-1, m_file.tell());
    EXPECT_TRUE(m_file.isEnd());
    EXPECT_EQ(-1, m_file.length());
    m_file.close();
}

TEST_F(FileOnDisk, SizeAndAccessOfAPath)
{
    m_folder.write("file", "12345");

    EXPECT_EQ(5, File::size(at("file").c_str()));
    EXPECT_EQ(-1, File::size(at("missing").c_str()));
    EXPECT_EQ(0, File::access(at("file").c_str(), F_OK));
    EXPECT_EQ(-1, File::access(at("missing").c_str(), F_OK));
}

TEST_F(FileOnDisk, SizeBeyondAnIntIsTold)
{
    m_folder.write("sparse", "");
    ASSERT_EQ(0, truncate(at("sparse").c_str(), off_t{3} << 30));

    EXPECT_EQ(int64_t{3} << 30, File::size(at("sparse").c_str()));
}

TEST_F(FileOnDisk, MakeDirectoryReportsItsFailure)
{
    const mode_t oldMask = umask(0);
    EXPECT_EQ(0, File::makeDirectory(at("new").c_str()));
    umask(oldMask);
    struct stat info = {};
    ASSERT_EQ(0, stat(at("new").c_str(), &info));
    EXPECT_EQ(0777u, info.st_mode & 07777);

    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, File::makeDirectory(at("new").c_str()));
    EXPECT_EQ("mkdir: File exists\n", testing::internal::GetCapturedStderr());
}

TEST_F(FileOnDisk, DirectoryPathIsMadeStepByStep)
{
    const std::string strPath = at("x/y/z/");
    EXPECT_EQ(0, File::makeDirectoryPath(strPath.c_str(), 1));
    EXPECT_TRUE(exists(at("x/y/z")));
    EXPECT_EQ(0, File::makeDirectoryPath(strPath.c_str(), 1)); // all exist: nothing is made

    ASSERT_EQ(0, File::remove(at("x/y/z").c_str()));
    EXPECT_EQ(0, File::makeDirectoryPath(strPath.c_str(), 1));
    EXPECT_TRUE(exists(at("x/y/z")));
}

TEST_F(FileOnDisk, LastComponentWithoutASlashIsNotMade)
{
    EXPECT_EQ(0, File::makeDirectoryPath(at("x/y").c_str(), 1));

    EXPECT_TRUE(exists(at("x")));
    EXPECT_FALSE(exists(at("x/y")));
}

TEST_F(FileOnDisk, EmptyComponentOrPathEndsTheWalk)
{
    EXPECT_EQ(0, File::makeDirectoryPath(nullptr, 0));
    EXPECT_EQ(0, File::makeDirectoryPath("", 0));
    EXPECT_EQ(0, File::makeDirectoryPath("/x/", 3));
    EXPECT_EQ(0, File::makeDirectoryPath("/x/", 30));

    EXPECT_EQ(0, File::makeDirectoryPath(at("x/").c_str(), 0)); // the empty prefix before "/"
    EXPECT_FALSE(exists(at("x")));
}

TEST_F(FileOnDisk, FailedDirectoryIsPrintedAndReturned)
{
    m_folder.write("file", "");
    testing::internal::CaptureStderr();

    EXPECT_EQ(-1, File::makeDirectoryPath(at("file/x/").c_str(), 1));

    EXPECT_EQ("mkdir: Not a directory\n", testing::internal::GetCapturedStderr());

    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, File::makeDirectoryPath(at("file/x//").c_str(), 1));
    EXPECT_EQ("mkdir: Not a directory\nmkdir: Not a directory\n",
              testing::internal::GetCapturedStderr())
        << "an empty component is one as well";
}

TEST_F(FileOnDisk, RemoveReportsItsFailure)
{
    m_folder.write("file", "");
    EXPECT_EQ(0, File::remove(at("file").c_str()));
    EXPECT_FALSE(exists(at("file")));

    testing::internal::CaptureStderr();
    EXPECT_EQ(-1, File::remove(at("file").c_str()));
    EXPECT_EQ("remove: No such file or directory\n", testing::internal::GetCapturedStderr());
}

TEST_F(FileOnDisk, CanonicalPathResolvesLinksAndDots)
{
    m_folder.write("file", "");
    ASSERT_EQ(0, symlink("file", at("link").c_str()));
    char acExpected[PATH_MAX];
    ASSERT_NE(nullptr, realpath(at("file").c_str(), acExpected));
    char acResult[PATH_MAX];

    EXPECT_EQ(0, File::canonicalPath(at("./link").c_str(), acResult));
    EXPECT_STREQ(acExpected, acResult);
    EXPECT_EQ(-1, File::canonicalPath(at("missing").c_str(), acResult));
}

TEST_F(FileOnDisk, FullDiskIsAShortWriteOrAFailedFlush)
{
    ASSERT_EQ(0, m_file.open("/dev/full", FILE_FLAG_WRITE));

    EXPECT_EQ(5u, m_file.write("hello", 5)); // in the stream's buffer
    EXPECT_EQ(-1, m_file.flush());
    EXPECT_EQ(ENOSPC, errno);
}
