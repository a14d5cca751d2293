// The firmware upload: which file is kept, which one is sent, and what a full port loses.
#include <fstream>
#include <sstream>

#include "PrintTest.h"

namespace {

class FirmwareTest : public PrintTest
{
protected:
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

TEST_F(FirmwareTest, ImageInPlaceIsSentAndTheReceivedOneKept)
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

TEST_F(FirmwareTest, MissingImageIsTold)
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

TEST_F(FirmwareTest, EmptyImageIsAnnouncedOnly)
{
    m_folder.write("pp.bin", "");

    EXPECT_EQ(0, service().updateFirmware("x", 1));

    EXPECT_EQ("M21\n", m_controller.readReceivedBytes());
}

TEST_F(FirmwareTest, CommandThatBeginsWithZeroFollowsTheImage)
{
    const std::string strImage = makeImage(3000);
    m_folder.write("pp.bin", strImage);

    EXPECT_EQ(0, service().printSingleCmd("0", 1));

    EXPECT_EQ((Texts{"M21", "0"}), received());
    EXPECT_TRUE(waitForImage("3000 bytes complete"));
    EXPECT_TRUE(strImage == keptImage());
    EXPECT_EQ(0U, output().find("start update\nM21\n"));
}

TEST_F(FirmwareTest, ControllerThatDoesNotReadLosesWhatIsPrinted)
{
    m_folder.write("pp.bin", makeImage(100000));
    m_controller.instruct("line 1 stall"); // answers M21 and stops reading

    EXPECT_EQ(0, service().updateFirmware("x", 1));
    const std::string strOutput = output();
    m_controller.instruct("unstall");

    size_t uRead = 0;
    size_t uSent = 0;
    std::istringstream stream(strOutput);
    for (std::string strLine; std::getline(stream, strLine);) {
        size_t uBlockRead = 0;
        size_t uBlockSent = 0;
        if (2 == sscanf(strLine.c_str(), "you read %zu and has send %zu byte to stm32", &uBlockRead,
                        &uBlockSent)) {
            uRead += uBlockRead;
            uSent += uBlockSent;
        }
    }
    EXPECT_EQ(100000U, uRead);
    EXPECT_LT(0U, uSent);
    EXPECT_GT(100000U, uSent);
    EXPECT_TRUE(contains(strOutput, "nWriteLength:-1\n"));
    EXPECT_TRUE(waitForImage(std::to_string(uSent) + " bytes cut"));
}
