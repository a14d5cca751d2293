// The controller's firmware: from the operator alone, at the port's pace, and the beam stays off.
#include <string>

#include <gtest/gtest.h>

#include "InterlockDesk.h"

namespace {

const KestrelLanguage KESTREL;
const GrblLanguage GRBL;

/** Bytes that tell their places apart. */
std::string makeImage(size_t uSize)
{
    std::string strImage;
    for (size_t u = 0; u < uSize; ++u) {
        strImage += static_cast<char>('a' + u % 23);
    }
    return strImage;
}

const std::string IMAGE = makeImage(5000);

WISH_E sendFirmware(InterlockDesk& desk)
{
    return desk.m_interlock.sendFirmware(IMAGE.data(), IMAGE.size(), desk.m_s64NowUs);
}

void makeRoom(InterlockDesk& desk)
{
    desk.m_interlock.onPortRoom(desk.m_s64NowUs);
}

/** The first block of three is out. */
void begin(InterlockDesk& desk)
{
    desk.plug();
    ASSERT_EQ(WISH_DONE, sendFirmware(desk));
    desk.controller("ok\n");
    desk.forget();
}

/** All blocks are out, and the port has taken them. */
void sendAll(InterlockDesk& desk)
{
    begin(desk);
    for (int n = 0; n < 3; ++n) {
        makeRoom(desk);
    }
    desk.forget();
}

} // namespace

TEST(InterlockFirmware, BlocksFollowAsThePortTakesThem)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    desk.forget();

    ASSERT_EQ(WISH_DONE, sendFirmware(desk));
    EXPECT_EQ("M21\n", desk.sent());
    EXPECT_FALSE(desk.m_interlock.wantsRoom());
    desk.controller("ok\n");
    EXPECT_TRUE(desk.m_interlock.wantsRoom());
    EXPECT_EQ(IMAGE.substr(0, 2048), desk.sent());
    EXPECT_EQ(0U, desk.m_interlock.getFirmwareTaken());
    makeRoom(desk);
    EXPECT_EQ(IMAGE.substr(2048, 2048), desk.sent());
    EXPECT_EQ(2048U, desk.m_interlock.getFirmwareTaken());
    makeRoom(desk);
    EXPECT_EQ(IMAGE.substr(4096), desk.sent());
    makeRoom(desk);
    EXPECT_EQ("", desk.sent());
    EXPECT_FALSE(desk.m_interlock.wantsRoom());
}

TEST(InterlockFirmware, SilenceEndsItAndBeamIsTurnedOffAnew)
{
    InterlockDesk desk(KESTREL);
    sendAll(desk);

    desk.pass(2999);
    EXPECT_EQ("", desk.sent()); // or it would be part of an image without a length
    EXPECT_EQ(0, desk.count(NOTICE_FIRMWARE_TAKEN));
    desk.pass(1);

    EXPECT_EQ(CUT, desk.sent());
    EXPECT_EQ(1, desk.count(NOTICE_FIRMWARE_TAKEN, 5000));
    EXPECT_FALSE(desk.m_interlock.isSendingFirmware());
    EXPECT_FALSE(desk.m_interlock.isHomed());
    EXPECT_EQ(WISH_BEAM, desk.m_interlock.raise(desk.m_s64NowUs));
    desk.controller("ready\n");
    EXPECT_EQ(WISH_DONE, desk.m_interlock.raise(desk.m_s64NowUs));
}

TEST(InterlockFirmware, GreetingOrUnpluggedControllerBehindTheImageEndsIt)
{
    InterlockDesk desk(KESTREL);
    sendAll(desk);
    desk.controller("ready\n");
    EXPECT_EQ(1, desk.count(NOTICE_FIRMWARE_TAKEN, 5000));
    EXPECT_EQ(0, desk.count(NOTICE_TRIP));
    EXPECT_EQ(CUT, desk.sent());

    InterlockDesk other(KESTREL);
    sendAll(other);
    other.m_interlock.onPortLost(other.m_s64NowUs);
    EXPECT_EQ(1, other.count(NOTICE_FIRMWARE_TAKEN, 5000));
    EXPECT_FALSE(other.m_actions.m_bReset); // it would not start its new firmware
}

TEST(InterlockFirmware, NothingElsePassesMeanwhile)
{
    InterlockDesk desk(KESTREL);
    begin(desk);
    const int64_t s64NowUs = desk.m_s64NowUs;

    desk.service("M5\n");
    EXPECT_EQ("ok\n", desk.told());
    desk.service("G1 X1 F100\n\n");
    EXPECT_EQ("error:20\n", desk.told());
    desk.service("M21\n");
    EXPECT_EQ("error:21\n", desk.told());
    EXPECT_EQ(WISH_BUSY, desk.m_interlock.raise(s64NowUs));
    EXPECT_EQ(WISH_BUSY, desk.m_interlock.unlock(s64NowUs));
    EXPECT_EQ(WISH_BUSY, desk.m_interlock.openJob("M5\n", 3, 0, s64NowUs));
    EXPECT_EQ(WISH_BUSY, sendFirmware(desk));
    EXPECT_EQ("", desk.sent());
    EXPECT_EQ(LEVEL_DARK, desk.m_interlock.getLevel());
}

TEST(InterlockFirmware, RefusedBeforeAnythingIsSent)
{
    InterlockDesk grbl(GRBL);
    grbl.plug();
    grbl.forget();
    EXPECT_EQ(WISH_UNSUPPORTED, sendFirmware(grbl));
    EXPECT_EQ("", grbl.sent());

    InterlockDesk unseen(KESTREL);
    unseen.m_interlock.onPortUp(unseen.m_s64NowUs);
    unseen.forget();
    EXPECT_EQ(WISH_BEAM, sendFirmware(unseen));
    EXPECT_EQ("", unseen.sent());

    InterlockDesk motion(KESTREL);
    motion.home();
    EXPECT_EQ(WISH_LEVEL, sendFirmware(motion));
    EXPECT_EQ("", motion.sent());

    InterlockDesk busy(KESTREL);
    busy.plug();
    busy.service("M5\n"); // not answered yet
    busy.forget();
    EXPECT_EQ(WISH_BUSY, sendFirmware(busy));
    EXPECT_EQ("", busy.sent());
}

TEST(InterlockFirmware, RefusalOfTheControllerEndsIt)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    ASSERT_EQ(WISH_DONE, sendFirmware(desk));
    desk.forget();

    desk.controller("error:9\n");

    EXPECT_EQ(1, desk.count(NOTICE_FIRMWARE_REFUSED, 9));
    EXPECT_EQ("", desk.sent());
    EXPECT_EQ(WISH_DONE, desk.m_interlock.raise(desk.m_s64NowUs));
}

TEST(InterlockFirmware, BeamOffComesFirstAndOnceMoreBehindThePauseThatEndsTheImage)
{
    InterlockDesk desk(KESTREL);
    begin(desk);
    makeRoom(desk);
    desk.forget();

    desk.m_interlock.off(desk.m_s64NowUs);

    EXPECT_EQ(CUT, desk.sent());
    EXPECT_EQ(1, desk.count(NOTICE_FIRMWARE_STOPPED, 2048));
    makeRoom(desk);
    desk.pass(1999);
    EXPECT_EQ("", desk.sent());
    desk.pass(1);
    EXPECT_EQ(CUT, desk.sent());
    EXPECT_EQ(0, desk.count(NOTICE_OFF_FAILED)); // the first one was part of the image
    EXPECT_FALSE(desk.m_actions.m_bReset);
    desk.pass(1000);
    EXPECT_EQ(1, desk.count(NOTICE_OFF_FAILED));
    EXPECT_TRUE(desk.m_actions.m_bReset);
}

TEST(InterlockFirmware, ControllerThatTakesNoMoreTrips)
{
    InterlockDesk desk(KESTREL);
    begin(desk);

    desk.pass(9999);
    EXPECT_EQ("", desk.sent());
    desk.pass(1);

    EXPECT_TRUE(desk.tripped(TRIP_FIRMWARE));
    EXPECT_EQ(1, desk.count(NOTICE_FIRMWARE_STOPPED, 0));
    EXPECT_EQ(CUT, desk.sent());
}

TEST(InterlockFirmware, AnnouncementWithoutAnAnswerTrips)
{
    InterlockDesk desk(KESTREL);
    desk.plug();
    ASSERT_EQ(WISH_DONE, sendFirmware(desk));
    desk.forget();

    desk.pass(1999);
    EXPECT_TRUE(desk.m_interlock.isSendingFirmware());
    desk.pass(1);

    EXPECT_TRUE(desk.tripped(TRIP_FIRMWARE));
    EXPECT_EQ(CUT, desk.sent());
}

TEST(InterlockFirmware, PulledCableStopsIt)
{
    InterlockDesk desk(KESTREL);
    begin(desk);
    makeRoom(desk);

    desk.m_interlock.onPortLost(desk.m_s64NowUs);

    EXPECT_EQ(1, desk.count(NOTICE_FIRMWARE_STOPPED, 2048));
    desk.m_interlock.onPortUp(desk.m_s64NowUs);
    desk.forget();
    makeRoom(desk);
    EXPECT_EQ("", desk.sent());
}
