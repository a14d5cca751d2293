// What a connection writes directly: it holds nobody, and has its time.
#include <climits>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "Connection.h"
#include "FakeSystem.h"
#include "Fault.h"
#include "SafePointer.h"
#include "Time.h"
#include "WebCameraClientFixture.h"

namespace {

using WebCameraClientWrite = WebCameraClientFixture;

} // namespace

TEST_F(WebCameraClientWrite, DirectWriteHoldsNobody)
{
    Connection connection(4096);
    const std::string strLarge = payload(1000000);
    const uint32_t u32StartMs = monotonicMs32();

    EXPECT_EQ(0, connection.client().write(strLarge.data(), static_cast<int>(strLarge.size())));

    EXPECT_LT(monotonicMs32() - u32StartMs, 1000U);
    EXPECT_EQ(0, connection.client().onTurn());
    EXPECT_FALSE(connection.client().mayRead()) << "nothing more is read meanwhile";
    EXPECT_TRUE(strLarge == connection.receiveAll()) << "it leaves as the socket drains";
    EXPECT_TRUE(connection.client().mayRead());
    EXPECT_EQ(INT_MAX, connection.client().getTimeLeft(monotonicMs32()));
}

TEST_F(WebCameraClientWrite, DirectWriteThatIsTakenAtOnceLeavesNothingBehind)
{
    EXPECT_EQ(0, m_connection.client().write("x", 1));

    EXPECT_EQ("x", m_connection.receive());
    EXPECT_TRUE(m_connection.client().mayRead());
    EXPECT_EQ(0, m_connection.client().onTurn());
}

TEST_F(WebCameraClientWrite, DirectWriteHasFiveSeconds)
{
    Connection connection(4096);
    const std::string strLarge(1000000, 'x');
    const uint32_t u32StartMs = monotonicMs32();

    EXPECT_EQ(0, connection.client().write(strLarge.data(), static_cast<int>(strLarge.size())));

    const uint32_t u32BegunMs = monotonicMs32();
    EXPECT_GE(connection.client().getTimeLeft(u32BegunMs),
              5000 - static_cast<int>(u32BegunMs - u32StartMs));
    EXPECT_GT(connection.client().getTimeLeft(u32StartMs + 4999), 0);
    EXPECT_LE(connection.client().getTimeLeft(u32BegunMs + 5000), 0);
}

TEST_F(WebCameraClientWrite, DirectWriteWithoutMemoryFails)
{
    FaultScope fault("malloc=1:1:ENOMEM");

    EXPECT_EQ(1, m_connection.client().write("x", 1));
    EXPECT_EQ(1U, faultHits());
}

TEST_F(WebCameraClientWrite, DirectWriteWithoutMemoryForItsHandleFails)
{
    const std::string strSize = std::to_string(sizeof(SafePointerBlock));
    FaultScope fault(("malloc=" + strSize + ":1:ENOMEM").c_str());

    EXPECT_EQ(1, m_connection.client().write("x", 1)) << "the peer would wait for its answer";
    EXPECT_EQ(1U, faultHits());
}

TEST_F(WebCameraClientWrite, DirectWriteThatFailsIsToldAtOnce)
{
    FaultScope fault("sendmsg:1:ECONNRESET");

    EXPECT_EQ(1, m_connection.client().write("x", 1));
}
