// The configuration file.
#include "Configuration.h"

#include <string>

#include <gtest/gtest.h>

#include "ScratchFolder.h"

namespace {

const char* const WHOLE = "[controller]\nport = \"/dev/a\"\nlanguage = \"grbl\"\n"
                          "pilot_on = \"M7\"\nhoming = false\nreset_line = \"/sys/x\"\n"
                          "[service]\nlink = \"/dev/ttyACM\"\ngroup = \"service\"\n"
                          "[operator]\nsocket = \"/run/s\"\ngroup = \"arm\"\n"
                          "[limits]\nmin = [0, -1, -2.5]\nmax = [10, 20, 30]\nfeed = 6000\n"
                          "power = 1000\nacceleration = 500.5\n[job]\nlease = false\n";

/** @return the error; empty when it was read */
std::string read(const std::string& strText, Configuration& configuration)
{
    ScratchFolder folder;
    folder.write("guard.toml", strText);
    std::string strError;
    const bool bRead =
        readConfiguration((folder.path() / "guard.toml").string(), configuration, strError);
    EXPECT_EQ(bRead, strError.empty());
    EXPECT_EQ(std::string::npos, strError.find('\n'));
    return strError;
}

/** The whole file with a piece replaced, and the end of the error. */
void expectError(const std::string& strPiece, const std::string& strBy, const std::string& strError)
{
    std::string strText = WHOLE;
    const size_t uPos = strText.find(strPiece);
    ASSERT_NE(std::string::npos, uPos) << strPiece;
    strText.replace(uPos, strPiece.size(), strBy);
    Configuration configuration;
    const std::string strTold = read(strText, configuration);
    EXPECT_NE(std::string::npos, strTold.find(strError)) << strTold;
}

} // namespace

TEST(Configuration, WholeFileIsTaken)
{
    Configuration configuration;

    ASSERT_EQ("", read(WHOLE, configuration));

    EXPECT_EQ("/dev/a", configuration.strPort);
    EXPECT_TRUE(configuration.bGrbl);
    EXPECT_EQ("M7", configuration.strPilotOn);
    EXPECT_EQ("M9", configuration.strPilotOff);
    EXPECT_FALSE(configuration.bHoming);
    EXPECT_EQ("/sys/x", configuration.strResetLine);
    EXPECT_EQ("/dev/ttyACM", configuration.strLink);
    EXPECT_EQ("service", configuration.strServiceGroup);
    EXPECT_EQ("/run/s", configuration.strSocket);
    EXPECT_EQ("arm", configuration.strGroup);
    EXPECT_EQ(-2.5, configuration.limits.minimum[2]);
    EXPECT_EQ(30, configuration.limits.maximum[2]);
    EXPECT_EQ(500.5, configuration.limits.dAcceleration);
    EXPECT_EQ(0, configuration.limits.dRapidFeed);
    EXPECT_FALSE(configuration.bLease);
}

TEST(Configuration, MissingLimitsAreTold)
{
    expectError("min = [0, -1, -2.5]\n", "", "limits.min is missing");
    expectError("max = [10, 20, 30]\n", "", "limits.max is missing");
    expectError("feed = 6000\n", "", "limits.feed is missing");
    expectError("power = 1000\n", "", "limits.power is missing");
    expectError("acceleration = 500.5\n", "", "limits.acceleration is missing");
}

TEST(Configuration, LimitsHaveToBeFiniteNumbers)
{
    expectError("6000", "inf", "limits.feed is not finite");
    expectError("6000", "nan", "limits.feed is not finite");
    expectError("-2.5", "-inf", "limits.min is not finite");
    expectError("6000", "\"6000\"", "limits.feed is no number");
    expectError("6000", "0", "limits.feed is not above zero");
    expectError("power = 1000", "power = -1", "limits.power is not above zero");
    expectError("[10, 20, 30]", "[10, 20]", "limits.max is not [X, Y, Z]");
    expectError("[10, 20, 30]", "[10, -20, 30]", "limits.min is above limits.max");
}

TEST(Configuration, UnknownKeysAreRefused)
{
    expectError("[job]", "[jobs]", "unknown key jobs");
    expectError("feed = 6000", "feed = 6000\nFeed = 1", "unknown key limits.Feed");
    expectError("[controller]", "x = 1\n[controller]", "unknown key x");
}

TEST(Configuration, OtherMistakesAreToldInOneLine)
{
    expectError("\"grbl\"", "\"grbl2\"", "controller.language is neither");
    expectError("\"M7\"", "\"M3 S1000\"", "controller.pilot_on is none of M7, M8, M9");
    expectError("port = \"/dev/a\"\n", "", "controller.port is missing");
    expectError("[service]\nlink = \"/dev/ttyACM\"\ngroup = \"service\"\n", "",
                "[service] is missing");
    expectError("\"grbl\"", "\"kestrel\"", "controller.homing is for language \"grbl\"");
    expectError("lease = false", "lease = 0", "job.lease is neither true nor false");
    expectError("port = \"/dev/a\"", "port = /dev/a", ":2: ");
    Configuration configuration;
    std::string strError;
    EXPECT_FALSE(readConfiguration("/nonexistent", configuration, strError));
    EXPECT_NE("", strError);
}
