// Finding the camera's node in the list of input devices.
#include "UvcProber.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "ScratchFolder.h"

namespace {

const std::string KEYBOARD = "I: Bus=0003 Vendor=046d Product=c31c Version=0110\n"
                             "N: Name=\"USB Keyboard\"\n"
                             "H: Handlers=sysrq kbd leds event1 \n"
                             "\n";
const std::string CAMERA = "I: Bus=0003 Vendor=05a3 Product=9230 Version=0100\n"
                           "N: Name=\"USB Camera\"\n"
                           "P: Phys=usb-1.1/button\n";

/** Has the preloaded library show a list of our own. */
class UvcProberFind : public testing::Test
{
protected:
    void SetUp() override
    {
        setenv("KESTREL_CAMERA_DIR", m_folder.path().c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("KESTREL_CAMERA_DIR");
    }

    int32_t find(const std::string& strList) const
    {
        m_folder.write("inputs", strList);
        return UvcProber::getInstance().find(0x05A3, 0x9230);
    }

    static std::string handlers(const std::string& strEvent)
    {
        return "H: Handlers=kbd " + strEvent + " \n";
    }

    ScratchFolder m_folder;
};

} // namespace

// The board's numbering of input events and video nodes is fixed.
TEST_F(UvcProberFind, DeliberateIndexFollowsFromTheEventNumber)
{
    const int anIndex[] = {0, 0, 0, 0, 0, 0, 1, 2, 3};
    for (int i = 0; i <= 8; ++i) {
        EXPECT_EQ(anIndex[i], find(CAMERA + handlers("event" + std::to_string(i)))) << i;
    }
    EXPECT_EQ(15, find(CAMERA + handlers("event20")));
    EXPECT_EQ(2147483642, find(CAMERA + handlers("event2147483647")));
    EXPECT_EQ(0, find(CAMERA + handlers("event-2147483648")));
}

TEST_F(UvcProberFind, OtherDevicesAndEmptyLinesArePassedOver)
{
    EXPECT_EQ(2, find("\n" + KEYBOARD + CAMERA + handlers("event7") + "\n" + KEYBOARD));
}

TEST_F(UvcProberFind, FirstHandlersLineBehindTheCameraCounts)
{
    EXPECT_EQ(1, find(CAMERA + handlers("event6") + handlers("event7")));
}

TEST_F(UvcProberFind, LaterDeviceLeavesTheCameraFound)
{
    EXPECT_EQ(1, find(CAMERA + "\nI: Bus=0003 Vendor=046d Product=c31c Version=0110\n" +
                      handlers("event6")));
}

TEST_F(UvcProberFind, CameraWithoutHandlersLineIsNotFound)
{
    EXPECT_EQ(-1, find(KEYBOARD + CAMERA));
}

TEST_F(UvcProberFind, HandlersLineWithoutEventNumberCountsAsZero)
{
    EXPECT_EQ(0, find(CAMERA + "H: Handlers=\n"));
    EXPECT_EQ(0, find(CAMERA + "H: Handlers=sysrq kbd event9\n"));
}

TEST_F(UvcProberFind, BothNumbersMustMatch)
{
    EXPECT_EQ(-1, find("I: Bus=0003 Vendor=05a3 Product=9231 Version=0100\n" + handlers("event7")));
    EXPECT_EQ(-1, find("I: Bus=0003 Vendor=05a4 Product=9230 Version=0100\n" + handlers("event7")));
    EXPECT_EQ(-1, find("I: garbage\n" + handlers("event7")));
}

TEST_F(UvcProberFind, EmptyOrMissingListHoldsNoCamera)
{
    EXPECT_EQ(-1, find(""));

    std::filesystem::remove(m_folder.path() / "inputs");

    EXPECT_EQ(-1, UvcProber::getInstance().find(0x05A3, 0x9230));
}

TEST_F(UvcProberFind, OverlongLineIsReadInPieces)
{
    const std::string strLong = "N: Name=\"" + std::string(3000, 'x') + "\"\n";

    EXPECT_EQ(2, find(KEYBOARD + strLong + CAMERA + strLong + handlers("event7")));
}

// A piece ends behind byte 1,022; the rest is read as a line of its own.
TEST_F(UvcProberFind, LineHasRoomFor1023Bytes)
{
    const std::string strOther = handlers("event20");

    EXPECT_EQ(15, find(CAMERA + "N" + std::string(1021, 'x') + handlers("event7") + strOther));
    EXPECT_EQ(2, find(CAMERA + "N" + std::string(1022, 'x') + handlers("event7") + strOther));
    EXPECT_EQ(15, find(CAMERA + "N" + std::string(1023, 'x') + handlers("event7") + strOther));
}

TEST_F(UvcProberFind, CameraIsFoundInALongLineToo)
{
    const std::string strBlanks(900, ' ');

    EXPECT_EQ(2, find("I: Bus=0003" + strBlanks + "Vendor=05a3 Product=9230 Version=0100\n" +
                      handlers("event7")));
}

TEST_F(UvcProberFind, VersionIsNotNeeded)
{
    EXPECT_EQ(2, find("I: Bus=0003 Vendor=05a3 Product=9230\n" + handlers("event7")));
    EXPECT_EQ(-1, find("I: Bus=0003 Vendor=05a3\n" + handlers("event7")));
    EXPECT_EQ(-1, UvcProber::getInstance().find(0x05A3, 0)); // what is missing is no zero
}
