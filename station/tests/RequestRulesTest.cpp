// The rules about who may ask: token, Host and Origin.
#include "RequestRules.h"

#include <gtest/gtest.h>

namespace {

RequestRules makeRules()
{
    return RequestRules("0123456789abcdef", {"Arm.example"}, {"https://arm.example"});
}

} // namespace

TEST(RequestRules, HostIsLocalhostAnOwnAddressOrConfigured)
{
    const RequestRules rules = makeRules();

    for (const char* const pHost : {"localhost", "LocalHost:8330", "127.0.0.1", "127.0.0.1:8330",
                                    "[::1]:8330", "arm.example", "ARM.example:443"}) {
        EXPECT_TRUE(rules.isHost(pHost)) << pHost;
    }
    for (const char* const pHost :
         {"", "evil.example", "arm.example.evil.example", "127.0.0.1.evil.example", "203.0.113.7",
          "[2001:db8::1]", "127.0.0.1:", "127.0.0.1:80x", "127.0.0.1:123456", "::1", "[::1",
          "localhost/", "user@localhost"}) {
        EXPECT_FALSE(rules.isHost(pHost)) << pHost;
    }
}

TEST(RequestRules, OriginIsTheRequestsOwnHostWithAPortOfOurs)
{
    const RequestRules rules = makeRules();

    EXPECT_TRUE(rules.isOrigin("http://127.0.0.1:8329", "127.0.0.1:8330", 8330));
    EXPECT_TRUE(rules.isOrigin("http://127.0.0.1:8330", "127.0.0.1:8330", 8330));
    EXPECT_TRUE(rules.isOrigin("http://127.0.0.1:9000", "127.0.0.1:9000", 9000));
    EXPECT_TRUE(rules.isOrigin("http://[::1]:8329", "[::1]:8330", 8330));
    EXPECT_TRUE(rules.isOrigin("https://arm.example", "127.0.0.1:8330", 8330));

    EXPECT_FALSE(rules.isOrigin("http://localhost:8329", "127.0.0.1:8330", 8330));
    EXPECT_FALSE(rules.isOrigin("https://127.0.0.1:8329", "127.0.0.1:8330", 8330));
    EXPECT_FALSE(rules.isOrigin("http://127.0.0.1:83290", "127.0.0.1:8330", 8330));
    EXPECT_FALSE(rules.isOrigin("http://127.0.0.1", "127.0.0.1:8330", 8330));
    EXPECT_FALSE(rules.isOrigin("null", "127.0.0.1:8330", 8330));
    EXPECT_FALSE(rules.isOrigin("", "", 8330));
    EXPECT_FALSE(rules.isOrigin("http://:8330", "", 8330));
}

TEST(RequestRules, TokenIsTheWholeBearer)
{
    const RequestRules rules = makeRules();

    EXPECT_TRUE(rules.isToken("Bearer 0123456789abcdef"));
    EXPECT_TRUE(rules.isToken("bearer 0123456789abcdef"));
    for (const char* const pWrong :
         {"", "Bearer", "Bearer ", "Bearer 0123456789abcde", "Bearer 0123456789abcdef0",
          "Bearer 0123456789abcdeF", "Basic 0123456789abcdef", "0123456789abcdef",
          "Bearer 0123456789abcdef0123456789abcdef"}) {
        EXPECT_FALSE(rules.isToken(pWrong)) << pWrong;
    }
    EXPECT_FALSE(RequestRules("", {}, {}).isToken("Bearer ")); // nobody without a token
}
