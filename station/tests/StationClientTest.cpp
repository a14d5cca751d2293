// What the client sends to a station, and what it makes of the answers.
#include "StationClient.h"

#include <chrono>
#include <string>
#include <thread>

#include <httplib.h>

#include <gtest/gtest.h>

namespace {

/** A server with the answers of one test. */
class StationClientServed : public testing::Test
{
protected:
    void SetUp() override
    {
        m_server.Get("/arm/state",
                     [](const httplib::Request& request, httplib::Response& response) {
                         response.set_content("{\"token\":\"" +
                                                  request.get_header_value("Authorization") + "\"}",
                                              "application/json");
                     });
        m_server.Post("/arm/level",
                      [](const httplib::Request& request, httplib::Response& response) {
                          response.set_content("[" + request.body + ",\"" +
                                                   request.get_header_value("Content-Type") + "\"]",
                                               "application/json");
                      });
        m_server.Post("/arm/off", [](const httplib::Request&, httplib::Response& response) {
            response.status = 503;
            response.set_content("{\"type\":\"urn:problem:kestrel:no-guard\",\"title\":\"t\","
                                 "\"detail\":\"No guard.\",\"action\":\"Start it.\"}",
                                 "application/problem+json");
        });
        m_server.Get("/arm/events", [](const httplib::Request&, httplib::Response& response) {
            response.set_content("event: state\ndata: 1\n\nevent: state\ndata: 2\n\n",
                                 "text/event-stream");
        });
        m_nPort = m_server.bind_to_any_port("127.0.0.1");
        m_thread = std::thread([this] { m_server.listen_after_bind(); });
        while (!m_server.is_running()) {
            std::this_thread::yield();
        }
    }

    void TearDown() override
    {
        m_server.stop();
        m_thread.join();
    }

    StationClient client(const std::string& strFolder = "/arm/") const
    {
        return {"http://127.0.0.1:" + std::to_string(m_nPort) + strFolder, "secret"};
    }

    httplib::Server m_server;
    std::thread m_thread;
    int m_nPort = 0;
};

} // namespace

TEST_F(StationClientServed, TokenAndFolderOfTheUrlGoWithEachRequest)
{
    const StationAnswer answer = client().get("/state");

    EXPECT_TRUE(answer.isGood());
    EXPECT_EQ("Bearer secret", answer.json["token"]);
}

TEST_F(StationClientServed, ChangeIsJson)
{
    const StationAnswer answer = client("/arm").post("/level", {{"level", "dark"}});

    EXPECT_EQ("[{\"level\":\"dark\"},\"application/json\"]", answer.strBody);
}

TEST_F(StationClientServed, ProblemIsToldInItsWords)
{
    const StationAnswer answer = client().post("/off", nlohmann::json::object());

    EXPECT_FALSE(answer.isGood());
    EXPECT_EQ(503, answer.nStatus);
    EXPECT_EQ("no-guard", answer.getProblem());
    EXPECT_EQ("No guard. Start it.", answer.strError);
}

TEST_F(StationClientServed, AnswerOfAnotherServerIsAProblemWithoutAName)
{
    const StationAnswer answer = client("").get("/nowhere");

    EXPECT_EQ(404, answer.nStatus);
    EXPECT_EQ("", answer.getProblem());
    EXPECT_EQ("HTTP status 404", answer.strError);
}

TEST_F(StationClientServed, EventsAreHandedOnUntilTheyEnd)
{
    std::string strSeen;

    const StationAnswer answer =
        client().watch([&strSeen](const std::string& strName, const std::string& strData) {
            strSeen += strName + strData;
            return true;
        });

    EXPECT_TRUE(answer.isGood());
    EXPECT_EQ("state1state2", strSeen);
}

TEST(StationClient, NobodyThereIsTold)
{
    const StationClient client("http://127.0.0.1:1", "");

    EXPECT_EQ(0, client.get("/state").nStatus);
    EXPECT_EQ("http://127.0.0.1:1 cannot be reached", client.get("/state").strError);
}

TEST(StationClient, HostIsTheUrls)
{
    EXPECT_EQ("arm.example", StationClient("https://arm.example/arm", "").getHost());
    EXPECT_EQ("127.0.0.1", StationClient("http://127.0.0.1:8330", "").getHost());
    EXPECT_EQ("[::1]", StationClient("http://[::1]:8330", "").getHost());
}

TEST(StationClient, OnlyUrlsOfHttpCanBeAsked)
{
    EXPECT_TRUE(StationClient::canAsk("http://127.0.0.1:8330"));
    EXPECT_FALSE(StationClient::canAsk("127.0.0.1:8330"));
    EXPECT_FALSE(StationClient::canAsk("ftp://127.0.0.1"));
    EXPECT_FALSE(StationClient::canAsk("http:///arm"));
    EXPECT_FALSE(StationClient::canAsk("http://"));
}
