// Notices as the journal and the operator get them.
#include "NoticeLine.h"

#include <string>

#include <gtest/gtest.h>

#include "GcodeLine.h"

namespace {

void expectLine(const NoticeLine& line, const std::string& strText, const std::string& strEvent)
{
    EXPECT_EQ(strText, line.getText());
    EXPECT_EQ(strEvent, line.getEvent());
}

} // namespace

TEST(NoticeLine, NamesWhatHasHappened)
{
    expectLine({NOTICE_LEVEL, LEVEL_JOB, TRIP_NONE}, "level job",
               "{\"event\":\"level\",\"level\":\"job\"}\n");
    expectLine({NOTICE_HOMED, 0, TRIP_NONE}, "homed", "{\"event\":\"homed\"}\n");
    expectLine({NOTICE_FIRMWARE_TAKEN, 262144, TRIP_NONE}, "firmware taken 262144",
               "{\"event\":\"firmware taken\",\"detail\":262144}\n");
}

TEST(NoticeLine, TripHasItsReasonAndWhatBelongsToIt)
{
    expectLine({NOTICE_DETAIL, 0, TRIP_LEASE}, "trip: lease",
               "{\"event\":\"trip\",\"reason\":\"lease\"}\n");
    expectLine({NOTICE_DETAIL, 2, TRIP_ALARM}, "trip: alarm 2",
               "{\"event\":\"trip\",\"reason\":\"alarm\",\"code\":2}\n");
    expectLine({NOTICE_DETAIL, LINE_BOX, TRIP_LINE_BAD},
               "trip: line must not pass, outside the box",
               "{\"event\":\"trip\",\"reason\":\"line must not pass\",\"fault\":\"outside the "
               "box\"}\n");
}

TEST(NoticeLine, LineThatDidNotPassIsNoTrip)
{
    expectLine({NOTICE_DETAIL, LINE_LASER, TRIP_NONE}, "line not passed, laser word",
               "{\"event\":\"line\",\"fault\":\"laser word\"}\n");
}

TEST(NoticeLine, NoTextIsCut)
{
    for (int nTrip = TRIP_NONE; nTrip <= TRIP_SHUTDOWN; ++nTrip) {
        for (int nFault = LINE_GOOD; nFault <= LINE_POSITION; ++nFault) {
            const NoticeLine line(NOTICE_DETAIL, nFault, static_cast<TRIP_E>(nTrip));
            const std::string strEvent = line.getEvent();
            EXPECT_EQ("}\n", strEvent.substr(strEvent.size() - 2)) << strEvent;
        }
    }
    const NoticeLine line(NOTICE_FIRMWARE_STOPPED, -2147483647, TRIP_NONE);
    EXPECT_EQ("firmware stopped -2147483647", std::string(line.getText()));
}
