// How requests are collected, plain answers, and what becomes of responders.
#include "WebCameraHttpDataProcessor.h"

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "Fault.h"
#include "LogCapture.h"
#include "WebCameraClient.h"

namespace {

std::string textAnswer(const std::string& strText)
{
    return "HTTP/1.1 200 OK\r\nConnection: close\r\nServer: MJPG-Streamer/0.2\r\nCache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\nPragma: no-cache\r\nExpires: Mon, 3 Jan 2000 12:34:56 GMT\r\nContent-type: text/plain\r\nContent-Length: " +
           std::to_string(strText.size()) + "\r\n\r\n" + strText;
}

int countOf(const std::string& strText, const std::string& strPart)
{
    int nCount = 0;
    for (size_t u = strText.find(strPart); std::string::npos != u;
         u = strText.find(strPart, u + strPart.size())) {
        ++nCount;
    }
    return nCount;
}

class FakeCommucation : public ICommucation
{
public:
    int write(const void* pData, int nLength) override
    {
        m_strWritten.append(static_cast<const char*>(pData), static_cast<size_t>(nLength));
        return m_nResult;
    }

    std::string m_strWritten;
    int m_nResult = 0;
};

/** Notes its life in a text. */
class FakeResponder : public IClient
{
public:
    FakeResponder(std::string& strNotes, const std::string& strName, int nStart, int nStop)
        : m_strNotes(strNotes), m_strName(strName), m_nStart(nStart), m_nStop(nStop)
    {
    }
    ~FakeResponder() override
    {
        m_strNotes += "~" + m_strName + " ";
    }
    int start() override
    {
        m_strNotes += "start" + m_strName + " ";
        return m_nStart;
    }
    int stop() override
    {
        m_strNotes += "stop" + m_strName + " ";
        return m_nStop;
    }

private:
    std::string& m_strNotes;
    const std::string m_strName;
    const int m_nStart;
    const int m_nStop;
};

/** Has always something more to send, or fails. */
class EndlessResponder : public IClient
{
public:
    EndlessResponder(int& nCalls, PROGRESS_E eProgress) : m_nCalls(nCalls), m_eProgress(eProgress)
    {
    }
    int start() override
    {
        return 0;
    }
    int stop() override
    {
        return 0;
    }
    PROGRESS_E goOn() override
    {
        ++m_nCalls;
        return m_eProgress;
    }

private:
    int& m_nCalls;
    const PROGRESS_E m_eProgress;
};

/** The processor by itself; responders are not reached. */
class WebCameraHttpDataProcessorRequest : public testing::Test
{
protected:
    int feed(const std::string& strChunk)
    {
        // A copy of exactly the chunk's size, so that a sanitizer sees a byte read too many.
        const std::vector<char> vecChunk(strChunk.begin(), strChunk.end());
        return m_processor.feed(vecChunk.data(), static_cast<int>(vecChunk.size()));
    }

    LogCapture m_log;
    FakeCommucation m_commucation;
    WebCameraClient m_client; // only held as a reference
    WebCameraHttpDataProcessor m_processor{m_commucation, m_client};
};

} // namespace

TEST_F(WebCameraHttpDataProcessorRequest, RequestWithoutBodyIsCompleteAtOnce)
{
    EXPECT_EQ(0, feed("GET /live?stream=1 HTTP/1.1\r\n\r\n"));

    EXPECT_TRUE(m_processor.isComplete());
    EXPECT_EQ("/live", m_processor.getPath());
    EXPECT_EQ((std::map<std::string, std::string>{{"stream", "1"}}), m_processor.getParams());
}

TEST_F(WebCameraHttpDataProcessorRequest, LaterDuplicateOfAKeyOverwrites)
{
    EXPECT_EQ(0, feed("GET /snap?filename=a&mode=x&filename=b HTTP/1.1\r\n\r\n"));

    EXPECT_EQ((std::map<std::string, std::string>{{"filename", "b"}, {"mode", "x"}}),
              m_processor.getParams());
}

TEST_F(WebCameraHttpDataProcessorRequest, BodyIsCollectedOverAnyNumberOfChunks)
{
    const std::string strBody = "hello body";
    for (size_t uFirst = 0; uFirst <= strBody.size(); ++uFirst) {
        for (size_t uSecond = uFirst; uSecond <= strBody.size(); ++uSecond) {
            WebCameraHttpDataProcessor processor(m_commucation, m_client);
            const std::string aChunk[] = {
                "POST /x HTTP/1.1\r\nContent-Length: 10\r\n\r\n" + strBody.substr(0, uFirst),
                strBody.substr(uFirst, uSecond - uFirst), strBody.substr(uSecond)};
            size_t uFed = 0;
            for (const std::string& strChunk : aChunk) {
                if (!strChunk.empty()) {
                    EXPECT_EQ(0,
                              processor.feed(strChunk.data(), static_cast<int>(strChunk.size())));
                }
                uFed += strChunk.size();
                EXPECT_EQ(uFed >= aChunk[0].size() + strBody.size() - uFirst,
                          processor.isComplete());
            }
            EXPECT_EQ(strBody, processor.getBody());
        }
    }
}

TEST_F(WebCameraHttpDataProcessorRequest, BytesBeyondTheContentLengthAreNotTaken)
{
    EXPECT_EQ(0, feed("POST /x HTTP/1.1\r\nContent-Length: 4\r\n\r\nab"));
    EXPECT_FALSE(m_processor.isComplete());
    EXPECT_EQ(0, feed("cdefgh"));
    EXPECT_EQ("abcd", m_processor.getBody());
    EXPECT_EQ(0, feed("ijkl"));

    EXPECT_EQ("abcd", m_processor.getBody());
    EXPECT_TRUE(m_processor.isComplete());
}

TEST_F(WebCameraHttpDataProcessorRequest, BodyOfAnUnrecognisedLengthIsIgnored)
{
    EXPECT_EQ(0, feed("POST /x HTTP/1.1\r\ncontent-length: 4\r\n\r\nabcd"));

    EXPECT_TRUE(m_processor.isComplete());
    EXPECT_EQ("", m_processor.getBody());
}

TEST_F(WebCameraHttpDataProcessorRequest, DeliberateLaterChunksAreNeverParsed)
{
    EXPECT_EQ(0, feed("GET /live HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(0, feed("GET /snap HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(0, feed("\x01garbage"));

    EXPECT_EQ("/live", m_processor.getPath());
    EXPECT_TRUE(m_processor.isComplete());
}

TEST_F(WebCameraHttpDataProcessorRequest, HugeContentLengthWaits)
{
    // -1 counts as unsigned: four gigabytes. The other two do not fit an int: two gigabytes.
    for (const char* pHeader :
         {"Content-: -1", "Content-Length: 4294967295", "Content-Length: 99999999999"}) {
        WebCameraHttpDataProcessor processor(m_commucation, m_client);
        const std::string strFirst = std::string("POST /live HTTP/1.1\r\n") + pHeader + "\r\n\r\n";
        const int nResult = processor.feed(strFirst.data(), static_cast<int>(strFirst.size()));
        EXPECT_EQ(0, nResult) << pHeader;
        EXPECT_EQ(0, processor.feed("some", 4)) << pHeader;
        EXPECT_FALSE(processor.isComplete()) << pHeader;
        EXPECT_EQ("some", processor.getBody()) << pHeader;
    }
}

TEST_F(WebCameraHttpDataProcessorRequest, NothingIsReservedForADeclaredLength)
{
    FaultScope fault("malloc>=3000:1-:ENOMEM");

    EXPECT_EQ(0, feed("POST /live HTTP/1.1\r\nContent-Length: 2147483647\r\n\r\n"));
    EXPECT_EQ(0, feed("some body"));

    EXPECT_EQ(0u, faultHits());
    EXPECT_FALSE(m_processor.isComplete());
    EXPECT_EQ("some body", m_processor.getBody());
}

TEST_F(WebCameraHttpDataProcessorRequest, BodyIsCountedAndItsFirst64KiBAreKept)
{
    const std::string strChunk(2048, 'b');
    const uint32_t u32Length = 10 * 1024 * 1024;
    EXPECT_EQ(0, feed("POST /live HTTP/1.1\r\nContent-Length: 10485760\r\n\r\n"));
    const uint32_t u32Before = ClientMemory::getInstance().getBytes();

    for (uint32_t u = 0; u < u32Length; u += 2048) {
        EXPECT_FALSE(m_processor.isComplete()) << u;
        EXPECT_EQ(0, feed(strChunk));
    }

    EXPECT_TRUE(m_processor.isComplete());
    EXPECT_EQ(u32Length, m_processor.getReceived());
    EXPECT_TRUE(std::string(64 * 1024, 'b') == m_processor.getBody());
    EXPECT_EQ(u32Before + 2 * 64 * 1024, ClientMemory::getInstance().getBytes()) << "counted";
}

TEST_F(WebCameraHttpDataProcessorRequest, WhatParametersBindIsCounted)
{
    const uint32_t u32Before = ClientMemory::getInstance().getBytes();

    EXPECT_EQ(0, feed("GET /live?a=1&b=2&c=3 HTTP/1.1\r\n\r\n"));

    // The path, and for each parameter its texts and 160 bytes.
    EXPECT_EQ(u32Before + 5 + 3 * (2 + 160), ClientMemory::getInstance().getBytes());
}

TEST_F(WebCameraHttpDataProcessorRequest, ConnectionThatWasGivenUpTakesNothingMore)
{
    EXPECT_EQ(0, feed("POST /live HTTP/1.1\r\nContent-Length: 9\r\n\r\n"));
    EXPECT_FALSE(m_client.take(40U << 20)) << "beyond what all clients may bind";

    EXPECT_EQ(1, feed("body"));
    std::string strNotes;
    EXPECT_EQ(1, m_processor.startResponder(std::make_unique<FakeResponder>(strNotes, "a", 0, 0)));
    EXPECT_EQ("~a ", strNotes);
    WebCameraHttpDataProcessor next(m_commucation, m_client);
    EXPECT_EQ(1, next.feed("GET /live HTTP/1.1\r\n\r\n", 22));
}

TEST_F(WebCameraHttpDataProcessorRequest, WithoutMemoryForTheBodyItThrows)
{
    EXPECT_EQ(0, feed("POST /live HTTP/1.1\r\nContent-Length: 2000\r\n\r\n"));
    FaultScope fault("malloc=1500:1:ENOMEM");

    EXPECT_THROW((void)m_processor.feed(std::string(1500, 'b').c_str(), 1500), std::bad_alloc);
}

TEST_F(WebCameraHttpDataProcessorRequest, MalformedRequestFails)
{
    EXPECT_EQ(1, feed("garbage\r\n\r\n"));
}

TEST_F(WebCameraHttpDataProcessorRequest, UrlWithoutPathFails)
{
    EXPECT_EQ(1, feed("GET http://board HTTP/1.1\r\n\r\n"));
}

TEST_F(WebCameraHttpDataProcessorRequest, ReplyIsTheGoldenText)
{
    EXPECT_EQ(0, m_processor.reply("some text"));

    EXPECT_EQ(
        "HTTP/1.1 200 OK\r\n"
        "Connection: close\r\n"
        "Server: MJPG-Streamer/0.2\r\n"
        "Cache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\n"
        "Pragma: no-cache\r\n"
        "Expires: Mon, 3 Jan 2000 12:34:56 GMT\r\n"
        "Content-type: text/plain\r\n"
        "Content-Length: 9\r\n"
        "\r\n"
        "some text",
        m_commucation.m_strWritten);
}

TEST_F(WebCameraHttpDataProcessorRequest, ReplyWithoutMemoryFails)
{
    FaultScope fault("calloc=1024:1:ENOMEM");

    EXPECT_EQ(1, m_processor.reply("some text"));
    EXPECT_EQ(1U, faultHits());
    EXPECT_EQ("", m_commucation.m_strWritten);
}

TEST_F(WebCameraHttpDataProcessorRequest, ReplyReturnsTheConnectionsResult)
{
    m_commucation.m_nResult = 7;

    EXPECT_EQ(7, m_processor.reply(""));
    EXPECT_EQ(textAnswer(""), m_commucation.m_strWritten);
}

TEST_F(WebCameraHttpDataProcessorRequest, ReplyLongerThanItsBlockIsWhole)
{
    const std::string strLong(3000, 'x');

    EXPECT_EQ(0, m_processor.reply(strLong.c_str()));

    EXPECT_EQ(textAnswer(strLong), m_commucation.m_strWritten);
}

TEST_F(WebCameraHttpDataProcessorRequest, ReplyLongerThanItsBlockLeavesNothingBehind)
{
    const std::string strLong(3000, 'x');
    m_commucation.m_strWritten.reserve(1000000);
    const size_t uBefore = allocatedBytes();

    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(0, m_processor.reply(strLong.c_str()));
    }

    EXPECT_GT(uBefore + 100000, allocatedBytes()); // a block has a thousand
}

TEST_F(WebCameraHttpDataProcessorRequest, RespondersAreStoppedThenDeletedWithTheProcessor)
{
    std::string strNotes;
    {
        WebCameraHttpDataProcessor processor(m_commucation, m_client);
        EXPECT_EQ(0,
                  processor.startResponder(std::make_unique<FakeResponder>(strNotes, "A", 0, 0)));
        EXPECT_EQ(5,
                  processor.startResponder(std::make_unique<FakeResponder>(strNotes, "B", 5, -1)));
        EXPECT_EQ("startA startB ", strNotes) << "an overwritten responder goes on";

        processor.stopResponders();
        EXPECT_EQ("startA startB stopA stopB ", strNotes);
        strNotes.clear();
    }
    EXPECT_EQ(1, countOf(strNotes, "~A"));
    EXPECT_EQ(1, countOf(strNotes, "~B"));
    EXPECT_LT(strNotes.find("stopA"), strNotes.find("~A"));
    EXPECT_LT(strNotes.find("stopB"), strNotes.find("~B"));
}

TEST_F(WebCameraHttpDataProcessorRequest, ResponderHasSixteenStepsInATurn)
{
    int nCalls = 0;
    EXPECT_EQ(0, m_processor.startResponder(
                     std::make_unique<EndlessResponder>(nCalls, IClient::PROGRESS_SENT)));

    EXPECT_EQ(+TcpClient::TURN_AGAIN, m_processor.goOn());
    EXPECT_EQ(16, nCalls);
}

TEST_F(WebCameraHttpDataProcessorRequest, ResponderThatFailsEndsTheConnection)
{
    int nCalls = 0;
    EXPECT_EQ(0, m_processor.startResponder(
                     std::make_unique<EndlessResponder>(nCalls, IClient::PROGRESS_FAILED)));

    EXPECT_EQ(1, m_processor.goOn());
    EXPECT_EQ(1, nCalls);
}

TEST_F(WebCameraHttpDataProcessorRequest, ResponderWhoseStopFailsIsNotDeleted)
{
    std::string strNotes;
    auto pResponder = std::make_unique<FakeResponder>(strNotes, "A", 0, 1);
    FakeResponder* pKept = pResponder.get();
    {
        WebCameraHttpDataProcessor processor(m_commucation, m_client);
        EXPECT_EQ(0, processor.startResponder(std::move(pResponder)));
    }
    EXPECT_EQ("startA stopA ", strNotes);
    delete pKept;
}
