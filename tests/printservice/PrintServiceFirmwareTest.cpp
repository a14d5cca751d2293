// The firmware upload: which file is kept, which one is sent, and what a full port loses.
#include <algorithm>
#include <fstream>
#include <sstream>

#include "Descriptors.h"
#include "PrintTest.h"

namespace {

class PrintServiceFirmware : public PrintTest
{
protected:
    // A silence that no stall is taken for.
    PrintServiceFirmware() : PrintTest({"--speed-up", "1000", "--image-quiet-ms", "5000"}) {}

    /** An image of the virtual controller's form, with every byte value in it. */
    static std::string makeImage(size_t uSize)
    {
        const size_t uRest = uSize - 8;
        std::string strImage = "KFW1";
        for (int nShift = 0; nShift < 32; nShift += 8) {
            strImage += static_cast<char>((uRest >> nShift) & 0xff);
        }
        for (size_t i = 0; i < uRest; ++i) {
            strImage += static_cast<char>((i * 7 + i / 256) & 0xff);
        }
        return strImage;
    }

    struct Block
    {
        size_t uRead;
        size_t uSent;
    };

    /** What the service printed about the blocks that it sent. */
    static std::vector<Block> printedBlocks(const std::string& strOutput)
    {
        std::vector<Block> vecBlock;
        std::istringstream stream(strOutput);
        for (std::string strLine; std::getline(stream, strLine);) {
            Block block{};
            if (2 == sscanf(strLine.c_str(), "you read %zu and has send %zu byte to stm32",
                            &block.uRead, &block.uSent)) {
                vecBlock.push_back(block);
            }
        }
        return vecBlock;
    }

    std::string keptImage() const
    {
        std::ifstream file(m_controller.getImagePath(), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    bool waitForImage(const std::string& strResult)
    {
        return eventually([&] { return Texts{strResult} == m_controller.readTexts("image"); });
    }
};

} // namespace

TEST_F(PrintServiceFirmware, DeliberateImageInPlaceIsSentAndTheReceivedOneKept)
{
    const std::string strImage = makeImage(5000); // fits the port whatever the reader does
    m_folder.write("pp.bin", strImage);
    m_folder.write("firmware.bin", "an older and longer one");

    EXPECT_EQ(0, service().updateFirmware("received\0image", 14));

    EXPECT_TRUE(waitForImage("5000 bytes complete"));
    EXPECT_TRUE(strImage == keptImage());
    EXPECT_EQ(std::string("received\0image", 14), m_folder.read("firmware.bin"));
    EXPECT_EQ(strImage, m_folder.read("pp.bin"));
    EXPECT_EQ("M21\n", m_controller.readReceivedBytes());
    EXPECT_EQ("Now in the update firmware function\n"
              "receive firmware successed!\n"
              "start update\n"
              "M21\n\nsend length:4\n"
              "you read 2048 and has send 2048 byte to stm32\n"
              "you read 2048 and has send 2048 byte to stm32\n"
              "you read 904 and has send 904 byte to stm32\n",
              output());
}

TEST_F(PrintServiceFirmware, MissingImageIsTold)
{
    EXPECT_EQ(0, service().updateFirmware("received", 8));

    EXPECT_EQ("received", m_folder.read("firmware.bin"));
    EXPECT_EQ("", m_controller.readReceivedBytes());
    EXPECT_EQ("Now in the update firmware function\n"
              "receive firmware successed!\n"
              "start update\n"
              "open bin failed!\n",
              output());
}

TEST_F(PrintServiceFirmware, ImageOfOneByteIsKept)
{
    EXPECT_EQ(0, service().updateFirmware("x", 1));

    EXPECT_EQ("x", m_folder.read("firmware.bin"));
}

TEST_F(PrintServiceFirmware, ImageOfNoLengthIsKeptEmpty)
{
    for (const int nLength : {0, -1}) {
        m_folder.write("firmware.bin", "former");

        EXPECT_EQ(0, service().updateFirmware("x", nLength));

        EXPECT_TRUE(fileExists("firmware.bin"));
        EXPECT_EQ("", m_folder.read("firmware.bin"));
    }
}

TEST_F(PrintServiceFirmware, LastBlockMayHaveOneByte)
{
    const std::string strImage = makeImage(2 * 2048 + 1);
    m_folder.write("pp.bin", strImage);

    EXPECT_EQ(0, service().updateFirmware("x", 1));

    EXPECT_TRUE(waitForImage("4097 bytes complete"));
    EXPECT_TRUE(strImage == keptImage());
}

TEST_F(PrintServiceFirmware, UploadLeavesNothingOpen)
{
    m_folder.write("pp.bin", makeImage(3000));
    const size_t uBefore = openDescriptors().size();

    EXPECT_EQ(0, service().updateFirmware("x", 1));

    EXPECT_EQ(uBefore, openDescriptors().size());
}

TEST_F(PrintServiceFirmware, EmptyImageIsAnnouncedOnly)
{
    m_folder.write("pp.bin", "");

    EXPECT_EQ(0, service().updateFirmware("x", 1));

    EXPECT_EQ("M21\n", m_controller.readReceivedBytes());
}

TEST_F(PrintServiceFirmware, CommandThatBeginsWithZeroFollowsTheImage)
{
    const std::string strImage = makeImage(3000);
    m_folder.write("pp.bin", strImage);

    EXPECT_EQ(0, service().printSingleCmd("0", 1));

    EXPECT_EQ((Texts{"M21", "0"}), received());
    EXPECT_TRUE(waitForImage("3000 bytes complete"));
    EXPECT_TRUE(strImage == keptImage());
    EXPECT_EQ(0U, output().find("start update\nM21\n"));
}

TEST_F(PrintServiceFirmware, DeliberateImageWithHolesIsASuccess)
{
    m_folder.write("pp.bin", makeImage(100000));
    m_controller.command("line 1 stall"); // answers M21 and stops reading

    EXPECT_EQ(0, service().updateFirmware("x", 1));
    const std::string strOutput = output();
    m_controller.command("unstall");

    size_t uRead = 0;
    size_t uSent = 0;
    for (const Block& block : printedBlocks(strOutput)) {
        uRead += block.uRead;
        uSent += block.uSent;
    }
    EXPECT_EQ(100000U, uRead);
    EXPECT_LT(0U, uSent);
    EXPECT_GT(100000U, uSent);
    EXPECT_TRUE(contains(strOutput, "nWriteLength:-1\n"));
    EXPECT_TRUE(waitForImage(std::to_string(uSent) + " bytes cut"));
}

TEST_F(PrintServiceFirmware, ControllerThatReadsGetsWhatThePortTookOfEachBlock)
{
    // Without a length of its own: how much of a large image gets through is up to the scheduler.
    const std::string strImage = makeImage(100000).substr(8);
    m_folder.write("pp.bin", strImage);

    EXPECT_EQ(0, service().updateFirmware("x", 1));

    std::string strExpected;
    const std::vector<Block> vecBlock = printedBlocks(output());
    for (size_t i = 0; i < vecBlock.size(); ++i) {
        EXPECT_EQ(std::min<size_t>(2048, strImage.size() - i * 2048), vecBlock[i].uRead);
        strExpected += strImage.substr(i * 2048, vecBlock[i].uSent);
    }
    EXPECT_EQ((strImage.size() + 2047) / 2048, vecBlock.size());
    EXPECT_TRUE(waitForImage(std::to_string(strExpected.size()) + " bytes raw"));
    EXPECT_TRUE(strExpected == keptImage());
}
