// Temporary files: made under /tmp, removed with their object, also when memory or disk are short.
#include "TempFile.h"

#include <string>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptors.h"
#include "Fault.h"
#include "Pattern.h"
#include "StandardInputAside.h"

namespace {

bool exists(const std::string& strPath)
{
    return 0 == ::access(strPath.c_str(), F_OK);
}

} // namespace

TEST(TempFile, IsMadeUnderTmpAndRemovedWithTheObject)
{
    std::string strPath;
    {
        TempFile file;
        ASSERT_EQ(0, file.create(FILE_FLAG_WRITE));
        strPath = file.getPath();
        EXPECT_TRUE(hasPattern(strPath, "^/tmp/temp_file\\.[A-Za-z0-9]{6}$"));
        EXPECT_TRUE(exists(strPath));
        EXPECT_EQ(4u, file.write("text", 4));
        EXPECT_EQ(0, file.flush());
        EXPECT_EQ(4, File::size(strPath.c_str()));
        EXPECT_EQ(FD_CLOEXEC, fcntl(fileno(file.getStream()), F_GETFD));
    }

    EXPECT_FALSE(exists(strPath));
}

TEST(TempFile, TwoAreDifferent)
{
    TempFile first;
    TempFile second;
    ASSERT_EQ(0, first.create(FILE_FLAG_WRITE));
    ASSERT_EQ(0, second.create(FILE_FLAG_WRITE));

    EXPECT_NE(first.getPath(), second.getPath());
}

TEST(TempFile, SecondCreateRemovesAndClosesTheFirst)
{
    TempFile file;
    ASSERT_EQ(0, file.create(FILE_FLAG_WRITE));
    const std::string strFirst = file.getPath();

    ASSERT_EQ(0, file.create(FILE_FLAG_WRITE));

    EXPECT_FALSE(exists(strFirst));
    EXPECT_TRUE(exists(file.getPath()));
    EXPECT_EQ(1u, openDescriptors("/tmp/temp_file.").size());
}

TEST(TempFile, RemovalThatFailsIsPrinted)
{
    testing::internal::CaptureStderr();
    {
        TempFile file;
        ASSERT_EQ(0, file.create(FILE_FLAG_WRITE));
        ASSERT_EQ(0, unlink(file.getPath().c_str()));
    }
    EXPECT_EQ("remove: No such file or directory\n", testing::internal::GetCapturedStderr());
}

TEST(TempFile, FailedCreationLeavesNothing)
{
    for (const char* pPlan : {"mkostemp:1:ENOSPC", "fdopen:1:ENOMEM"}) {
        std::string strPath;
        testing::internal::CaptureStderr();
        {
            FaultScope fault(pPlan);
            TempFile file;
            EXPECT_EQ(-1, file.create(FILE_FLAG_WRITE));
            strPath = file.getPath();
            EXPECT_EQ(nullptr, file.getStream());
        }
        (void)testing::internal::GetCapturedStderr();
        EXPECT_FALSE(exists(strPath)) << pPlan;
        EXPECT_EQ(0u, openDescriptors("/tmp/temp_file.").size()) << pPlan;
    }
}

TEST(TempFile, DescriptorZeroIsADescriptorToo)
{
    const StandardInputAside aside;
    TempFile file;

    EXPECT_EQ(0, file.create(FILE_FLAG_WRITE));

    ASSERT_NE(nullptr, file.getStream());
    EXPECT_EQ(0, fileno(file.getStream()));
}

TEST(TempFile, WithoutMemoryForItsNameItIsNotMade)
{
    testing::internal::CaptureStderr();
    {
        TempFile file;
        FaultScope fault("malloc:1:ENOMEM");
        EXPECT_EQ(-1, file.create(FILE_FLAG_WRITE));
        EXPECT_EQ(1u, faultHits());
    }

    (void)testing::internal::GetCapturedStderr();
}
