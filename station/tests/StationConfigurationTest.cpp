// The station's configuration file and its token.
#include "StationConfiguration.h"

#include <fstream>
#include <utility>

#include <gtest/gtest.h>

#include "ScratchFolder.h"

namespace {

std::string readText(const std::string& strText, StationConfiguration& configuration)
{
    std::ofstream("station.toml") << strText;
    std::string strError;
    return readStationConfiguration("station.toml", configuration, strError) ? "" : strError;
}

} // namespace

TEST(StationConfiguration, EmptyFileIsTheDefaults)
{
    const ScratchFolder folder;
    std::filesystem::current_path(folder.path());
    StationConfiguration configuration;

    EXPECT_EQ("", readText("", configuration));

    EXPECT_EQ(std::vector<std::string>{"127.0.0.1"}, configuration.vecAddress);
    EXPECT_EQ(8330, configuration.nPort);
    EXPECT_EQ("/etc/kestrel-guard.toml", configuration.strGuard);
    EXPECT_FALSE(configuration.bOpenMeasure);
    EXPECT_FALSE(configuration.bStarts);
}

TEST(StationConfiguration, EveryKeyIsTaken)
{
    const ScratchFolder folder;
    std::filesystem::current_path(folder.path());
    StationConfiguration configuration;

    EXPECT_EQ(
        "",
        readText("[station]\nstarts = true\nfolder = \"/a\"\nguard = \"/b\"\nopen_measure = true\n"
                 "[http]\naddresses = [\"0.0.0.0\", \"::\"]\nport = 9000\ntoken = \"/c\"\n"
                 "hosts = [\"arm\"]\norigins = [\"https://arm\"]\n",
                 configuration));

    EXPECT_TRUE(configuration.bStarts);
    EXPECT_EQ("/a", configuration.strFolder);
    EXPECT_EQ("/b", configuration.strGuard);
    EXPECT_TRUE(configuration.bOpenMeasure);
    EXPECT_EQ((std::vector<std::string>{"0.0.0.0", "::"}), configuration.vecAddress);
    EXPECT_EQ(9000, configuration.nPort);
    EXPECT_EQ("/c", configuration.strTokenFile);
    EXPECT_EQ(std::vector<std::string>{"arm"}, configuration.vecHost);
    EXPECT_EQ(std::vector<std::string>{"https://arm"}, configuration.vecOrigin);
}

TEST(StationConfiguration, WhatIsWrongIsTold)
{
    const ScratchFolder folder;
    std::filesystem::current_path(folder.path());
    const std::pair<const char*, const char*> CASES[] = {
        {"[station]\nfolders = \"/a\"\n", "station.toml: unknown key station.folders"},
        {"more = 1\n", "station.toml: unknown key more"},
        {"[http]\nport = 0\n", "station.toml: http.port is no port"},
        {"[http]\nport = \"8330\"\n", "station.toml: http.port is no port"},
        {"[http]\nhosts = \"arm\"\n", "station.toml: http.hosts is no list"},
        {"[http]\nhosts = [1]\n", "station.toml: http.hosts is no text"},
        {"[station]\nopen_measure = 1\n",
         "station.toml: station.open_measure is neither true nor false"}};
    for (const auto& [pText, pError] : CASES) {
        StationConfiguration configuration;

        EXPECT_EQ(pError, readText(pText, configuration));
    }
    StationConfiguration configuration;
    EXPECT_EQ(0U, readText("[station\n", configuration).find("station.toml:1: "));
    std::string strError;
    EXPECT_FALSE(readStationConfiguration("none.toml", configuration, strError));
}

TEST(StationConfiguration, TokenIsALineOfSixteenCharacters)
{
    const ScratchFolder folder;
    std::filesystem::current_path(folder.path());
    std::string strToken;
    std::string strError;

    std::ofstream("token") << "0123456789abcdef\n";
    EXPECT_TRUE(readToken("token", strToken, strError));
    EXPECT_EQ("0123456789abcdef", strToken);

    for (const char* const pWrong : {"", "0123456789abcde\n", "0123456789 abcdef\n"}) {
        std::ofstream("token") << pWrong;
        EXPECT_FALSE(readToken("token", strToken, strError)) << pWrong;
    }
    EXPECT_FALSE(readToken("none", strToken, strError));
    EXPECT_EQ("none: No such file or directory", strError);
}
