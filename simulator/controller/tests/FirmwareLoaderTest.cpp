// When a firmware image ends, and that its bytes are kept.
#include "FirmwareLoader.h"

#include <fstream>
#include <iterator>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

namespace {

std::string imagePath()
{
    return testing::TempDir() + "kestrel-image." + std::to_string(getpid());
}

std::string readFile(const std::string& strPath)
{
    std::ifstream file(strPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace

TEST(FirmwareLoader, ImageWithLengthEndsCutAfterEveryByte)
{
    const std::string strWhole("KFW1\x05\0\0\0ab\n\0c", 13);
    const std::string strStream = strWhole + "M5\n";
    for (size_t uCut = 0; uCut <= strStream.size(); ++uCut) {
        FirmwareLoader loader(imagePath(), 1000);
        loader.begin(0);

        size_t uTaken = loader.take(strStream.data(), uCut, 1);
        if (uTaken == uCut) {
            uTaken += loader.take(strStream.data() + uCut, strStream.size() - uCut, 2);
        }

        EXPECT_EQ(strWhole.size(), uTaken) << uCut;
        EXPECT_FALSE(loader.isActive());
        EXPECT_EQ("13 bytes complete", loader.getResult());
        EXPECT_EQ(strWhole, readFile(imagePath()));
    }
    unlink(imagePath().c_str());
}

TEST(FirmwareLoader, ImageWithoutLengthEndsWithSilence)
{
    FirmwareLoader loader(imagePath(), 1000);
    loader.begin(0);
    loader.take("any bytes\n", 10, 500);

    EXPECT_FALSE(loader.endIfQuiet(1499));
    EXPECT_TRUE(loader.endIfQuiet(1500));

    EXPECT_EQ("10 bytes raw", loader.getResult());
    EXPECT_EQ("any bytes\n", readFile(imagePath()));
    unlink(imagePath().c_str());
}

TEST(FirmwareLoader, ImageThatFallsShortIsCut)
{
    FirmwareLoader loader("", 1000);
    loader.begin(0);
    loader.take("KFW1\xff\0\0\0abc", 11, 0);

    EXPECT_TRUE(loader.endIfQuiet(1000));

    EXPECT_EQ("11 bytes cut", loader.getResult());
}

TEST(FirmwareLoader, EmptyImageWithLengthEndsAtOnce)
{
    FirmwareLoader loader("", 1000);
    loader.begin(0);

    EXPECT_EQ(8U, loader.take("KFW1\0\0\0\0ok", 10, 0));

    EXPECT_EQ("8 bytes complete", loader.getResult());
}
