// The forms of an IPv4 address with its port.
#include "Endpoint.h"

#include <cstring>

#include <gtest/gtest.h>

TEST(Endpoint, HoldsTextAndSocketAddress)
{
    const Endpoint endpoint(0xc0a80101, 8001);
    const unsigned char acPort[] = {0x1f, 0x41}; // 8001, network order
    const unsigned char acAddress[] = {192, 168, 1, 1};

    EXPECT_EQ(0xc0a80101u, endpoint.m_u32Address);
    EXPECT_EQ(8001, endpoint.m_u16Port);
    EXPECT_EQ("192.168.1.1", endpoint.m_strText);
    EXPECT_EQ(AF_INET, endpoint.m_address.sin_family);
    EXPECT_EQ(0, memcmp(acPort, &endpoint.m_address.sin_port, sizeof(acPort)));
    EXPECT_EQ(0, memcmp(acAddress, &endpoint.m_address.sin_addr, sizeof(acAddress)));
}

TEST(Endpoint, SmallestAndLargestAddress)
{
    EXPECT_EQ("0.0.0.0", Endpoint(0, 0).m_strText);
    EXPECT_EQ("255.255.255.255", Endpoint(0xffffffff, 65535).m_strText);
    EXPECT_EQ(0xffffffffu, Endpoint(0xffffffff, 65535).m_address.sin_addr.s_addr);
}
