// Copies of files that nobody can change any more.
#include "FileCopy.h"

#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptors.h"
#include "ScratchFolder.h"

namespace {

class FileCopyFolder : public testing::Test
{
protected:
    int openFile(const std::string& strText)
    {
        m_folder.write("file", strText);
        return open((m_folder.path() / "file").c_str(), O_RDONLY | O_CLOEXEC);
    }

    /** Copy to the end. @return the error; empty when it is done */
    static std::string finish(FileCopy& copy)
    {
        std::string strError;
        FileCopy::STEP_E eStep = FileCopy::STEP_MORE;
        while (FileCopy::STEP_MORE == eStep) {
            eStep = copy.step(strError);
        }
        EXPECT_EQ(FileCopy::STEP_DONE == eStep, strError.empty());
        return strError;
    }

    ScratchFolder m_folder;
    FileCopy m_copy;
    std::string m_strError;
};

} // namespace

TEST_F(FileCopyFolder, CopyIsWholeAndHasItsSum)
{
    ASSERT_TRUE(m_copy.begin(openFile("abc"), m_strError));
    EXPECT_TRUE(m_copy.isUnderWay());
    EXPECT_EQ(nullptr, m_copy.getText());

    EXPECT_EQ("", finish(m_copy));

    EXPECT_FALSE(m_copy.isUnderWay());
    EXPECT_EQ("abc", std::string(m_copy.getText(), m_copy.getSize()));
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", // FIPS 180-4
              m_copy.getSum());
}

TEST_F(FileCopyFolder, LargeFileTakesStepsAndAfterwardsItsOwnerMayChangeIt)
{
    const std::string strText(150000, 'x');
    ASSERT_TRUE(m_copy.begin(openFile(strText), m_strError));

    EXPECT_EQ(FileCopy::STEP_MORE, m_copy.step(m_strError));
    EXPECT_EQ(FileCopy::STEP_MORE, m_copy.step(m_strError));
    EXPECT_EQ(FileCopy::STEP_DONE, m_copy.step(m_strError));

    m_folder.write("file", std::string(150000, 'y'));
    EXPECT_EQ(strText, std::string(m_copy.getText(), m_copy.getSize()));
}

TEST_F(FileCopyFolder, DescriptorIsTakenInAnyCase)
{
    const size_t uBefore = openDescriptors().size();

    EXPECT_FALSE(m_copy.begin(openFile(""), m_strError));
    EXPECT_EQ(uBefore, openDescriptors().size());
    ASSERT_TRUE(m_copy.begin(openFile("abc"), m_strError));
    EXPECT_EQ("", finish(m_copy));
    EXPECT_EQ(uBefore, openDescriptors().size());
    ASSERT_TRUE(m_copy.begin(openFile("abc"), m_strError)); // given up on the way
    ASSERT_TRUE(m_copy.begin(openFile("abcd"), m_strError));
    EXPECT_EQ("", finish(m_copy));
    EXPECT_EQ(4U, m_copy.getSize());
    EXPECT_EQ(uBefore, openDescriptors().size());
}

TEST_F(FileCopyFolder, WhatIsNoFileOrTooLargeIsRefused)
{
    int anPipe[2] = {-1, -1};
    ASSERT_EQ(0, pipe2(anPipe, O_CLOEXEC));
    EXPECT_FALSE(m_copy.begin(anPipe[0], m_strError));
    EXPECT_EQ("no regular file", m_strError);
    close(anPipe[1]);
    EXPECT_FALSE(m_copy.begin(open("/", O_RDONLY | O_CLOEXEC), m_strError));
    EXPECT_EQ("no regular file", m_strError);

    EXPECT_FALSE(m_copy.begin(openFile(""), m_strError));
    EXPECT_EQ("the file is empty or over 32 MiB", m_strError);
    const int nLarge = openFile("x");
    ASSERT_EQ(0, truncate((m_folder.path() / "file").c_str(), 33554433));
    EXPECT_FALSE(m_copy.begin(nLarge, m_strError));
    EXPECT_EQ("the file is empty or over 32 MiB", m_strError);
    EXPECT_FALSE(m_copy.isUnderWay());
    const int nLargest = openFile("x");
    ASSERT_EQ(0, truncate((m_folder.path() / "file").c_str(), 33554432));
    EXPECT_TRUE(m_copy.begin(nLargest, m_strError));
}

TEST_F(FileCopyFolder, FileThatShrinksOrCannotBeReadIsTold)
{
    ASSERT_TRUE(m_copy.begin(openFile(std::string(100000, 'x')), m_strError));
    ASSERT_EQ(FileCopy::STEP_MORE, m_copy.step(m_strError));
    ASSERT_EQ(0, truncate((m_folder.path() / "file").c_str(), 10));
    EXPECT_EQ("the file has shrunk", finish(m_copy));
    EXPECT_FALSE(m_copy.isUnderWay());
    EXPECT_EQ(nullptr, m_copy.getText());

    m_folder.write("file", "abc");
    m_strError.clear();
    ASSERT_TRUE(
        m_copy.begin(open((m_folder.path() / "file").c_str(), O_WRONLY | O_CLOEXEC), m_strError));
    EXPECT_EQ("the file cannot be read: Bad file descriptor", finish(m_copy));
}

TEST_F(FileCopyFolder, ReleaseKeepsSizeAndSum)
{
    ASSERT_TRUE(m_copy.begin(openFile("abc"), m_strError));
    ASSERT_EQ("", finish(m_copy));

    m_copy.release();
    m_copy.release();

    EXPECT_EQ(nullptr, m_copy.getText());
    EXPECT_EQ(3U, m_copy.getSize());
    EXPECT_EQ(64U, m_copy.getSum().size());
}
