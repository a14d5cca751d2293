// Wire: delay, rate, the bounded queue, seeded losses and the cut, on times that the test gives.
#include "Wire.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

const uint64_t MS = 1000000; // nanoseconds

void enter(Wire& wire, const std::string& strPacket, uint64_t u64NowNs)
{
    wire.enter(strPacket.data(), strPacket.size(), u64NowNs);
}

/** What arrives until then. */
std::vector<std::string> arrived(Wire& wire, uint64_t u64NowNs)
{
    std::vector<std::string> vecResult;
    Wire::Packet packet;
    while (wire.leave(packet, u64NowNs)) {
        vecResult.emplace_back(packet.begin(), packet.end());
    }
    return vecResult;
}

using Packets = std::vector<std::string>;

} // namespace

TEST(Wire, PacketArrivesAfterTheDelay)
{
    WireOptions options;
    options.u64DelayNs = 5 * MS;
    Wire wire(options);
    EXPECT_EQ(UINT64_MAX, wire.getNextNs());

    enter(wire, "one", 100 * MS);
    enter(wire, "two", 102 * MS);

    EXPECT_EQ(105 * MS, wire.getNextNs());
    EXPECT_EQ(Packets(), arrived(wire, 105 * MS - 1));
    EXPECT_EQ(Packets{"one"}, arrived(wire, 105 * MS));
    EXPECT_EQ(Packets{"two"}, arrived(wire, 107 * MS));
    EXPECT_EQ(2U, wire.getArrived());
}

TEST(Wire, RatePartsPacketsThatEnterTogether)
{
    WireOptions options;
    options.u64DelayNs = 1 * MS;
    options.u64BitsPerS = 8000000; // a byte in a microsecond
    Wire wire(options);

    enter(wire, std::string(1000, 'a'), 0);
    enter(wire, std::string(500, 'b'), 0);

    EXPECT_EQ(2 * MS, wire.getNextNs());
    EXPECT_EQ(Packets{std::string(1000, 'a')}, arrived(wire, 2 * MS));
    EXPECT_EQ(2 * MS + MS / 2, wire.getNextNs());
}

TEST(Wire, PauseIsNotSavedUpForLater)
{
    WireOptions options;
    options.u64BitsPerS = 8000000;
    Wire wire(options);
    enter(wire, std::string(1000, 'a'), 0);

    enter(wire, std::string(1000, 'b'), 10 * MS);

    EXPECT_EQ(1U, arrived(wire, 1 * MS).size());
    EXPECT_EQ(11 * MS, wire.getNextNs());
}

TEST(Wire, FullQueueDropsWhatEnters)
{
    WireOptions options;
    options.u64DelayNs = 100 * MS;
    options.u64BitsPerS = 8000000;
    options.uQueue = 2;
    Wire wire(options);

    enter(wire, std::string(1000, 'a'), 0);
    enter(wire, std::string(1000, 'b'), 0);
    enter(wire, std::string(1000, 'c'), 0);
    enter(wire, std::string(1000, 'd'), 1 * MS); // the first one is out, although not there yet

    EXPECT_EQ(1U, wire.getOverflowed());
    const Packets expected{std::string(1000, 'a'), std::string(1000, 'b'), std::string(1000, 'd')};
    EXPECT_EQ(expected, arrived(wire, 1000 * MS));
}

TEST(Wire, WithoutARateNoQueueFills)
{
    WireOptions options;
    options.u64DelayNs = 100 * MS;
    options.uQueue = 2;
    Wire wire(options);

    for (int i = 0; i < 100; ++i) {
        enter(wire, "p", 0);
    }

    EXPECT_EQ(100U, arrived(wire, 100 * MS).size());
    EXPECT_EQ(0U, wire.getOverflowed());
}

TEST(Wire, LossesAreThoseOfTheSeed)
{
    const auto lost = [](uint32_t u32Seed) {
        WireOptions options;
        options.u32LossPerMillion = 10000;
        options.u32Seed = u32Seed;
        Wire wire(options);
        std::vector<bool> vecLost;
        for (uint64_t i = 0; i < 100000; ++i) {
            enter(wire, "p", i);
            vecLost.push_back(arrived(wire, i).empty());
        }
        EXPECT_EQ(100000U, wire.getArrived() + wire.getLost());
        EXPECT_NEAR(1000, wire.getLost(), 100);
        return vecLost;
    };

    EXPECT_EQ(lost(7), lost(7));
    EXPECT_NE(lost(7), lost(8));
}

TEST(Wire, CutDropsWhatIsOnItsWayAndWhatEnters)
{
    WireOptions options;
    options.u64DelayNs = 5 * MS;
    Wire wire(options);
    enter(wire, "before", 0);

    wire.setCut(true);
    enter(wire, "meanwhile", 1 * MS);
    wire.setCut(false);
    enter(wire, "after", 2 * MS);

    EXPECT_EQ(Packets{"after"}, arrived(wire, 1000 * MS));
}
