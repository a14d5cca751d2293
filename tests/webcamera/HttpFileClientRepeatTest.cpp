// The file once more for whatever else a client sends.
#include <cstdint>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "CardFolder.h"
#include "Connection.h"
#include "FakeSystem.h"
#include "Fault.h"
#include "HttpFileClient.h"
#include "HttpFileHeader.h"

namespace {

class HttpFileClientRepeat : public testing::Test
{
protected:
    CardFolder m_www{"www"};
};

} // namespace

TEST_F(HttpFileClientRepeat, FurtherBytesServeTheFileAgain)
{
    m_www.write("f.txt", "x");
    Connection connection;
    EXPECT_EQ(0, connection.request("GET /f.txt HTTP/1.1\r\n\r\n"));
    m_www.write("f.txt", "yy");
    EXPECT_EQ(0, connection.request("GET /other HTTP/1.1\r\n\r\n"));

    EXPECT_EQ(header("text/plain", 1) + "x" + header("text/plain", 2) + "yy",
              connection.receiveAll());
}

TEST_F(HttpFileClientRepeat, RepeatsAreAnsweredInOrderOneAtATime)
{
    const std::string strAnswer = header("image/png", 300000) + payload(300000);
    m_www.write("f.png", payload(300000));
    Connection connection(4096);
    EXPECT_EQ(0, connection.request("GET /f.png HTTP/1.1\r\n\r\n"));
    const uint32_t u32Before = ClientMemory::getInstance().getBytes();
    for (int i = 0; i < 300; ++i) {
        EXPECT_EQ(0, connection.request("x"));
    }
    EXPECT_EQ(u32Before, ClientMemory::getInstance().getBytes()) << "a repeat binds nothing";

    std::string strGot;
    while (strGot.size() < 4 * strAnswer.size()) {
        const std::string strMore = connection.receive();
        EXPECT_EQ(0, connection.writeOn());
        EXPECT_GE(u32Before, ClientMemory::getInstance().getBytes()) << "one piece at a time";
        strGot += strMore;
    }
    EXPECT_TRUE(strAnswer + strAnswer + strAnswer + strAnswer ==
                strGot.substr(0, 4 * strAnswer.size()));
}

TEST_F(HttpFileClientRepeat, EachRepeatIsAnsweredOnce)
{
    const std::string strAnswer = header("image/png", 300000) + payload(300000);
    m_www.write("f.png", payload(300000));
    for (const int nRepeats : {1, 2, 3}) {
        Connection connection(4096);
        EXPECT_EQ(0, connection.request("GET /f.png HTTP/1.1\r\n\r\n"));
        for (int i = 0; i < nRepeats; ++i) {
            EXPECT_EQ(0, connection.request("x"));
        }

        const std::string strGot = connection.receiveAll();

        std::string strExpected = strAnswer;
        for (int i = 0; i < nRepeats; ++i) {
            strExpected += strAnswer;
        }
        EXPECT_EQ(strExpected.size(), strGot.size()) << nRepeats;
        EXPECT_TRUE(strExpected == strGot) << nRepeats;
    }
}

TEST_F(HttpFileClientRepeat, AnswersThatAreGoneBindNothing)
{
    m_www.write("f.txt", payload(100000));
    Connection connection(4096);
    const uint32_t u32Before = ClientMemory::getInstance().getBytes();
    EXPECT_EQ(0, connection.request("GET /f.txt HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(0, connection.request("x"));

    (void)connection.receiveAll();

    EXPECT_EQ(u32Before + 6, ClientMemory::getInstance().getBytes()) << "the path stays";
}

TEST_F(HttpFileClientRepeat, RepeatOfAFileThatHasGoneEndsTheConnection)
{
    const std::string strAnswer = header("image/png", 300000) + payload(300000);
    m_www.write("f.png", payload(300000));
    Connection connection(4096);
    EXPECT_EQ(0, connection.request("GET /f.png HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(0, connection.request("x"));
    std::filesystem::remove(m_www.path() / "f.png");

    std::string strGot;
    int nResult = 0;
    while (0 == nResult && strGot.size() <= strAnswer.size()) {
        strGot += connection.receive();
        nResult = connection.writeOn();
        if (strGot.size() == strAnswer.size()) {
            break; // all of it, and the turn behind it
        }
    }

    EXPECT_EQ(1, nResult);
    EXPECT_TRUE(strAnswer == strGot + connection.receive());
}

TEST_F(HttpFileClientRepeat, RepeatWithoutMemoryEndsTheConnectionBehindTheAnswer)
{
    const std::string strAnswer = header("image/png", 300000) + payload(300000);
    m_www.write("f.png", payload(300000));
    Connection connection(4096);
    EXPECT_EQ(0, connection.request("GET /f.png HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(0, connection.request("x"));
    FaultScope fault(("malloc=" + std::to_string(sizeof(HttpFileClient)) + ":1:ENOMEM").c_str());

    std::string strGot;
    int nResult = 0;
    while (0 == nResult && strGot.size() <= strAnswer.size()) {
        strGot += connection.receive();
        nResult = connection.writeOn();
    }

    EXPECT_EQ(1U, faultHits());
    EXPECT_EQ(1, nResult);
    EXPECT_TRUE(strAnswer == strGot + connection.receive());
}
