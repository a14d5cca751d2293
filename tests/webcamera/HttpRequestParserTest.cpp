// What the parser makes of a request's first chunk.
#include "HttpRequestParser.h"

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Fault.h"
#include "LogCapture.h"

namespace {

/** Parses a copy of exactly the chunk's size, so that a sanitizer sees a byte read too many. */
struct Parsed
{
    explicit Parsed(const std::string& strChunk) : vecChunk(strChunk.begin(), strChunk.end())
    {
        nResult = parser.parse(vecChunk.data(), static_cast<int>(vecChunk.size()));
    }

    /** "key=value;" of each pair. */
    std::string params()
    {
        std::string strAll;
        std::string_view key;
        std::string_view value;
        while (parser.nextParam(key, value)) {
            strAll += std::string(key) + "=" + std::string(value) + ";";
        }
        return strAll;
    }

    std::vector<char> vecChunk;
    HttpRequestParser parser;
    int nResult;
};

std::string paramsOf(const std::string& strQuery)
{
    return Parsed("GET /live?" + strQuery + " HTTP/1.1\r\n\r\n").params();
}

class HttpRequestParserChunk : public testing::Test
{
protected:
    LogCapture m_log;
};

} // namespace

TEST_F(HttpRequestParserChunk, RequestLineGivesPathAndParameter)
{
    Parsed parsed("GET /live?stream=1 HTTP/1.1\r\n\r\n");

    EXPECT_EQ(0, parsed.nResult);
    EXPECT_EQ("/live", parsed.parser.getPath());
    EXPECT_EQ("stream=1", parsed.parser.getQuery());
    EXPECT_EQ("stream=1;", parsed.params());
    EXPECT_EQ(nullptr, parsed.parser.getBody().data());
    EXPECT_EQ(0, parsed.parser.getContentLength());
}

TEST_F(HttpRequestParserChunk, UrlWithoutQueryHasNoPair)
{
    Parsed parsed("GET /live HTTP/1.1\r\n\r\n");

    EXPECT_EQ(nullptr, parsed.parser.getQuery().data());
    EXPECT_EQ("", parsed.params());
}

TEST_F(HttpRequestParserChunk, AbsoluteUrlAndFragmentLeaveThePath)
{
    Parsed parsed("GET http://board:8329/a/b.html?x=1#top HTTP/1.1\r\n\r\n");

    EXPECT_EQ(0, parsed.nResult);
    EXPECT_EQ("/a/b.html", parsed.parser.getPath());
    EXPECT_EQ("x=1;", parsed.params());
}

TEST_F(HttpRequestParserChunk, AbsoluteUrlWithoutPathHasNone)
{
    Parsed parsed("GET http://board HTTP/1.1\r\n\r\n");

    EXPECT_EQ(0, parsed.nResult);
    EXPECT_EQ(nullptr, parsed.parser.getPath().data());
}

TEST_F(HttpRequestParserChunk, PairsComeInOrder)
{
    EXPECT_EQ("a=1;b=2;c=3;", paramsOf("a=1&b=2&c=3"));
}

TEST_F(HttpRequestParserChunk, WordWithoutEqualsSignIsNoPair)
{
    EXPECT_EQ("x=1;", paramsOf("x=1&y"));
    EXPECT_EQ("", paramsOf("x"));
}

TEST_F(HttpRequestParserChunk, SecondEqualsSignMovesTheKey)
{
    EXPECT_EQ("b=c;", paramsOf("a=b=c"));
}

TEST_F(HttpRequestParserChunk, DeliberateAmpersandAtTheEndStaysInTheValue)
{
    EXPECT_EQ("a=1&;", paramsOf("a=1&"));
    EXPECT_EQ("a=1;b=2&;", paramsOf("a=1&b=2&"));
}

TEST_F(HttpRequestParserChunk, DeliberateEmptyValueEndsTheIteration)
{
    EXPECT_EQ("", paramsOf("a=&b=1"));
    EXPECT_EQ("x=1;", paramsOf("x=1&a=&b=1"));
    EXPECT_EQ("", paramsOf("a="));
}

TEST_F(HttpRequestParserChunk, DeliberateEmptyKeyEndsTheIteration)
{
    EXPECT_EQ("", paramsOf("=1&b=2"));
}

TEST_F(HttpRequestParserChunk, OneAmpersandTooManyIsSteppedOver)
{
    EXPECT_EQ("a=1;b=2;", paramsOf("&a=1&&b=2"));
    EXPECT_EQ("a=1;", paramsOf("a=1&&&b=2"));
    EXPECT_EQ("", paramsOf("&"));
    EXPECT_EQ("", paramsOf("&&"));
    EXPECT_EQ("a=1;", paramsOf("a=1&&"));
}

TEST_F(HttpRequestParserChunk, WordBeforeAPairBecomesItsValue)
{
    EXPECT_EQ("y&x=y;", paramsOf("y&x=1"));
}

TEST_F(HttpRequestParserChunk, NothingIsDecoded)
{
    EXPECT_EQ("a=%20+x;", paramsOf("a=%20+x"));
}

TEST_F(HttpRequestParserChunk, QueryIsNeverReadBeyondItsEnd)
{
    // Each cut makes another end of the query; the copy's end is the chunk's.
    const std::string strRequest = "GET /live?&aa=11&&b=2=3&c=&=x&";
    for (size_t uCut = strlen("GET /live"); uCut <= strRequest.size(); ++uCut) {
        Parsed parsed(strRequest.substr(0, uCut));
        EXPECT_EQ(0, parsed.nResult) << uCut;
        EXPECT_EQ("/live", parsed.parser.getPath());
        (void)parsed.params();
        EXPECT_EQ("", parsed.params()) << "no pair behind the last one";
    }
}

TEST_F(HttpRequestParserChunk, HeadersAreRead)
{
    Parsed parsed("POST /camera HTTP/1.1\r\nHost: board\r\nContent-Type: text/plain\r\n"
                  "Content-Length: 5\r\n\r\nhello");

    EXPECT_EQ(0, parsed.nResult);
    EXPECT_EQ("text/plain", parsed.parser.getContentType());
    EXPECT_EQ(5, parsed.parser.getContentLength());
    EXPECT_EQ("hello", parsed.parser.getBody());
}

TEST_F(HttpRequestParserChunk, OtherHeadersBehindThemDoNotChangeThem)
{
    Parsed parsed("POST /camera HTTP/1.1\r\nContent-Length: 5\r\nContent-Type: text/plain\r\n"
                  "Host: board\r\nX-Count: 7\r\n\r\nhello");

    EXPECT_EQ(0, parsed.nResult);
    EXPECT_EQ("text/plain", parsed.parser.getContentType());
    EXPECT_EQ(5, parsed.parser.getContentLength());
}

TEST_F(HttpRequestParserChunk, DeliberateHeaderNameInOtherCaseIsNotRecognised)
{
    Parsed parsed("POST /camera HTTP/1.1\r\ncontent-type: text/plain\r\n"
                  "content-length: 5\r\n\r\nhello");

    EXPECT_EQ("", parsed.parser.getContentType());
    EXPECT_EQ(0, parsed.parser.getContentLength());
    EXPECT_EQ("hello", parsed.parser.getBody()) << "the library knows the length";
}

TEST_F(HttpRequestParserChunk, DeliberateBeginningOfAHeaderNameCountsAsTheName)
{
    Parsed both("GET / HTTP/1.1\r\nContent-: 7\r\n\r\n");
    EXPECT_EQ("7", both.parser.getContentType());
    EXPECT_EQ(7, both.parser.getContentLength());

    Parsed one("GET / HTTP/1.1\r\nContent-L: 8\r\n\r\n");
    EXPECT_EQ("", one.parser.getContentType());
    EXPECT_EQ(8, one.parser.getContentLength());

    Parsed longer("GET / HTTP/1.1\r\nContent-Lengthy: 9\r\nContent-Type2: x\r\n\r\n");
    EXPECT_EQ("", longer.parser.getContentType());
    EXPECT_EQ(0, longer.parser.getContentLength());
}

TEST_F(HttpRequestParserChunk, ContentLengthBeyondAnIntIsTheLargestInt)
{
    for (const char* pLength : {"2147483648", "4294967295", "99999999999", "1844674407370955160"}) {
        Parsed parsed(std::string("POST / HTTP/1.1\r\nContent-Length: ") + pLength + "\r\n\r\n");
        EXPECT_EQ(0, parsed.nResult) << pLength;
        EXPECT_EQ(INT_MAX, parsed.parser.getContentLength()) << pLength;
    }
    Parsed fits("POST / HTTP/1.1\r\nContent-Length: 2147483647\r\n\r\n");
    EXPECT_EQ(INT_MAX, fits.parser.getContentLength());
    Parsed negative("POST / HTTP/1.1\r\nContent-: -99999999999\r\n\r\n");
    EXPECT_EQ(INT_MIN, negative.parser.getContentLength());
}

TEST_F(HttpRequestParserChunk, NegativeContentLengthIsMalformed)
{
    Parsed parsed("POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n");

    EXPECT_EQ(1, parsed.nResult);
    ASSERT_EQ(1u, m_log.lines().size());
    EXPECT_NE(std::string::npos, m_log.text().find("HPE_INVALID_CONTENT_LENGTH:"));
}

TEST_F(HttpRequestParserChunk, LongContentLengthValueIsReadWhole)
{
    Parsed parsed("POST / HTTP/1.1\r\nContent-Length: " + std::string(60, '0') + "12\r\n\r\n");

    EXPECT_EQ(12, parsed.parser.getContentLength());
}

TEST_F(HttpRequestParserChunk, ContentLengthIsReadAsANumberIsInC)
{
    const std::pair<const char*, int> aCase[] = {
        {"12", 12},
        {"\t 12", 12},
        {"12 34", 12},
        {"12x", 12},
        {"+12", 12},
        {"-12", -12},
        {"x12", 0},
        {"+-12", 0},
        {"-+12", 0},
        {"- 12", 0},
        {"-", 0},
        {"\v", 0},
        {"\v12", 12},
        {"0x12", 0},
        {"0012", 12},
        {"1e3", 1},
        {"-0", 0},
        {"4294967300", INT_MAX},
        {"-2147483648", INT_MIN},
        {"-2147483647", -INT_MAX},
        {"-4294967300", INT_MIN},
    };
    for (const auto& [pText, nExpected] : aCase) {
        // Only the beginning of the name: the library does not check the value.
        Parsed parsed(std::string("POST / HTTP/1.1\r\nContent-L: ") + pText + "\r\n\r\n");
        EXPECT_EQ(0, parsed.nResult) << pText;
        EXPECT_EQ(nExpected, parsed.parser.getContentLength()) << pText;
    }
}

TEST_F(HttpRequestParserChunk, NothingIsThrownWithoutMemory)
{
    const std::string strLong(1500, '1');
    HttpRequestParser parser;
    const std::string strLength = "GET / HTTP/1.1\r\nContent-L: " + strLong + "\r\n\r\n";
    const std::string strType = "GET / HTTP/1.1\r\nContent-Type: " + strLong + "\r\n\r\n";
    FaultScope fault("malloc>=1400:1-:ENOMEM");

    EXPECT_EQ(0, parser.parse(strLength.data(), static_cast<int>(strLength.size())));
    EXPECT_EQ(INT_MAX, parser.getContentLength());
    EXPECT_EQ(1, parser.parse(strType.data(), static_cast<int>(strType.size())));
}

TEST_F(HttpRequestParserChunk, ContentTypeOfAnyLengthIsWhole)
{
    for (const size_t uLength : {35u, 36u, 37u, 1500u}) {
        const std::string strType(uLength, 'x');
        Parsed parsed("POST / HTTP/1.1\r\nContent-Type: " + strType +
                      "\r\nContent-Length: 3\r\n\r\nabc");

        EXPECT_EQ(0, parsed.nResult);
        EXPECT_EQ(strType, parsed.parser.getContentType());
        EXPECT_EQ(3, parsed.parser.getContentLength());
        EXPECT_EQ("abc", parsed.parser.getBody());
    }
}

TEST_F(HttpRequestParserChunk, LastUrlOfTheChunkCounts)
{
    Parsed parsed("GET /first?a=1 HTTP/1.1\r\n\r\nGET /second?b=2 HTTP/1.1\r\n\r\n");

    EXPECT_EQ(0, parsed.nResult);
    EXPECT_EQ("/second", parsed.parser.getPath());
    EXPECT_EQ("b=2;", parsed.params());
}

TEST_F(HttpRequestParserChunk, EachChunkBeginsWithItsFirstPair)
{
    Parsed parsed("GET /first?a=1&b=2 HTTP/1.1\r\n\r\n");
    EXPECT_EQ("a=1;b=2;", parsed.params());
    const std::string strNext = "GET /second?c=3&d=4 HTTP/1.1\r\n\r\n";

    EXPECT_EQ(0, parsed.parser.parse(strNext.data(), static_cast<int>(strNext.size())));

    EXPECT_EQ("c=3;d=4;", parsed.params());
}

TEST_F(HttpRequestParserChunk, ChunkedBodyGivesItsLastPiece)
{
    Parsed parsed("POST /camera HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
                  "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");

    EXPECT_EQ(0, parsed.nResult);
    EXPECT_EQ("de", parsed.parser.getBody());
    EXPECT_EQ(0, parsed.parser.getContentLength());
}

TEST_F(HttpRequestParserChunk, GarbageIsLoggedWithTheBytesReceived)
{
    // No zero byte behind the chunk: only a bounded print can log this.
    Parsed parsed("\x01\x02garbage");

    EXPECT_EQ(1, parsed.nResult);
    ASSERT_EQ(1u, m_log.lines().size());
    EXPECT_EQ("[debug] [webcamera/HttpRequestParser ] [parse] parse request error :\n"
              "\x01\x02garbage\nHPE_INVALID_METHOD:invalid HTTP method\n",
              m_log.lines()[0]);
}

TEST_F(HttpRequestParserChunk, ChunkWithoutUrlIsLogged)
{
    for (const char* pChunk : {"G", "GET", "GET ", "\r\n", "\r\n\r\n"}) {
        m_log.clear();
        Parsed parsed(pChunk);

        EXPECT_EQ(1, parsed.nResult) << pChunk;
        ASSERT_EQ(1u, m_log.lines().size()) << pChunk;
        EXPECT_EQ("[debug] [webcamera/HttpRequestParser ] [parse] url parse error !\n",
                  m_log.lines()[0]);
    }
}

TEST_F(HttpRequestParserChunk, ConnectRequestHasNoUrlToSplit)
{
    Parsed parsed("CONNECT board:80 HTTP/1.1\r\n\r\n");

    EXPECT_EQ(1, parsed.nResult);
    EXPECT_EQ("[debug] [webcamera/HttpRequestParser ] [parse] url parse error !\n", m_log.text());
}

TEST_F(HttpRequestParserChunk, UrlCutByTheChunkCountsAsItIs)
{
    const std::string strRequest = "GET /live?stream=1 HTTP/1.1\r\nHost: board\r\n\r\n";
    for (size_t uCut = 5; uCut <= strRequest.size(); ++uCut) {
        Parsed parsed(strRequest.substr(0, uCut));

        EXPECT_EQ(0, parsed.nResult) << uCut;
        const size_t uPath = std::min(uCut, strlen("GET /live"));
        EXPECT_EQ(strRequest.substr(4, uPath - 4), parsed.parser.getPath()) << uCut;
        const bool bWholePair = uCut >= strlen("GET /live?stream=1");
        EXPECT_EQ(bWholePair ? "stream=1;" : "", parsed.params()) << uCut;
    }
}

TEST_F(HttpRequestParserChunk, DigitsBehindTheChunkAreNotRead)
{
    const std::string strRequest = "POST /x HTTP/1.1\r\nContent-Length: 123\r\n\r\n";
    HttpRequestParser parser;

    EXPECT_EQ(0, parser.parse(strRequest.data(), static_cast<int>(strRequest.find("23"))));

    EXPECT_EQ(1, parser.getContentLength());
}

TEST_F(HttpRequestParserChunk, HeadersCutByTheChunkAreNotReadBeyondIt)
{
    const std::string strRequest = "POST /x HTTP/1.1\r\nContent-Type: a/b\r\n"
                                   "Content-Length: 12\r\n\r\n";
    for (size_t uCut = strlen("POST /x"); uCut <= strRequest.size(); ++uCut) {
        Parsed parsed(strRequest.substr(0, uCut));

        EXPECT_EQ(0, parsed.nResult) << uCut;
        const size_t uDigits = strRequest.find("12");
        const int nExpected = (uCut <= uDigits) ? 0 : (uCut == uDigits + 1) ? 1 : 12;
        EXPECT_EQ(nExpected, parsed.parser.getContentLength()) << uCut;
    }
}
