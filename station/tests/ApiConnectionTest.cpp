// A connection's requests: cut anywhere, too large, or not served at all.
#include "ApiConnection.h"

#include <string>
#include <utility>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Time.h"

namespace {

/** A connection and its peer. */
struct Peers
{
    Peers()
    {
        int anFd[2] = {-1, -1};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, anFd));
        nPeer = anFd[0];
        pConnection = std::make_unique<ApiConnection>(anFd[1]);
    }
    Peers(const Peers&) = delete;
    Peers& operator=(const Peers&) = delete;
    ~Peers()
    {
        if (nPeer >= 0) {
            close(nPeer);
        }
    }
    REQUEST_E send(const std::string& strText)
    {
        EXPECT_EQ(static_cast<ssize_t>(strText.size()),
                  ::send(nPeer, strText.data(), strText.size(), 0));
        return pConnection->receive();
    }

    int nPeer = -1;
    std::unique_ptr<ApiConnection> pConnection;
};

std::string readAll(ApiConnection& connection)
{
    std::string strText;
    char acData[7];
    for (ssize_t nRead = 1; nRead > 0;) {
        nRead = connection.read(acData, sizeof(acData));
        strText.append(acData, (nRead > 0) ? static_cast<size_t>(nRead) : 0);
    }
    return strText;
}

const std::string POST =
    "POST /x HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 2\r\n\r\n{}";

} // namespace

TEST(ApiConnection, RequestIsWholeAfterItsLastByteOnly)
{
    for (size_t uCut = 1; uCut < POST.size(); ++uCut) {
        Peers peers;

        EXPECT_EQ(REQUEST_PART, peers.send(POST.substr(0, uCut))) << uCut;
        EXPECT_EQ(REQUEST_PLAIN, peers.send(POST.substr(uCut))) << uCut;
        peers.pConnection->begin(monotonicMs() + 1000);

        EXPECT_EQ(POST, readAll(*peers.pConnection));
        EXPECT_TRUE(peers.pConnection->end());
        EXPECT_FALSE(peers.pConnection->hasPart());
    }
}

TEST(ApiConnection, NextRequestStaysBehind)
{
    Peers peers;
    const std::string strNext = "GET /y HTTP/1.1\r\n\r\n";

    EXPECT_EQ(REQUEST_PLAIN, peers.send(POST + strNext));
    peers.pConnection->begin(monotonicMs() + 1000);
    EXPECT_EQ(POST, readAll(*peers.pConnection));
    EXPECT_TRUE(peers.pConnection->end());

    EXPECT_EQ(REQUEST_PLAIN, peers.pConnection->classify());
    peers.pConnection->begin(monotonicMs() + 1000);
    EXPECT_EQ(strNext, readAll(*peers.pConnection));
}

TEST(ApiConnection, BodyThatNobodyReadsGoesWithItsRequest)
{
    Peers peers;

    EXPECT_EQ(REQUEST_PLAIN, peers.send(POST));
    peers.pConnection->begin(monotonicMs() + 1000);

    EXPECT_TRUE(peers.pConnection->end());
    EXPECT_EQ(REQUEST_PART, peers.pConnection->classify());
}

TEST(ApiConnection, KindIsTakenFromTheHead)
{
    const std::pair<std::string, REQUEST_E> CASES[] = {
        {"POST /off HTTP/1.1\r\nContent-Length: 0\r\n\r\n", REQUEST_OFF},
        {"POST /off?x HTTP/1.1\r\nContent-Length: 0\r\n\r\n", REQUEST_OFF},
        {"POST /offer HTTP/1.1\r\nContent-Length: 0\r\n\r\n", REQUEST_PLAIN},
        {"GET /events HTTP/1.1\r\n\r\n", REQUEST_WATCH},
        {"GET /eventful HTTP/1.1\r\n\r\n", REQUEST_PLAIN},
        {"POST /jobs HTTP/1.1\r\ncontent-type:application/octet-stream\r\ncontent-length: 33554432"
         "\r\n\r\n",
         REQUEST_UPLOAD},
        {"POST /jobs HTTP/1.1\r\nContent-Type: application/octet-stream\r\nContent-Length: 33554433"
         "\r\n\r\n",
         REQUEST_WRONG},
        {"POST /x HTTP/1.1\r\nContent-Length: 65537\r\n\r\n", REQUEST_WRONG},
        {"POST /x HTTP/1.1\r\n\r\n", REQUEST_WRONG},
        {"POST /x HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nx", REQUEST_WRONG},
        {"POST /x HTTP/1.1\r\nContent-Length: 0x1\r\n\r\nx", REQUEST_WRONG},
        {"POST /x HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n", REQUEST_WRONG},
        {"POST /x HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n", REQUEST_WRONG}};
    for (const auto& [strHead, eRequest] : CASES) {
        Peers peers;

        EXPECT_EQ(eRequest, peers.send(strHead)) << strHead;
    }
}

TEST(ApiConnection, HeadHasABound)
{
    Peers peers;
    const std::string strHead = "GET /x HTTP/1.1\r\nX: ";

    EXPECT_EQ(REQUEST_PART, peers.send(strHead));
    EXPECT_EQ(REQUEST_WRONG, peers.send(std::string(8192 - strHead.size(), 'x')));
    EXPECT_STREQ("too-large", peers.pConnection->getProblem());
}

TEST(ApiConnection, FileThatDoesNotComeEndsTheReading)
{
    Peers peers;
    EXPECT_EQ(REQUEST_UPLOAD,
              peers.send("POST /jobs HTTP/1.1\r\nContent-Type: application/octet-stream\r\n"
                         "Content-Length: 100\r\n\r\nten bytes."));
    const uint64_t u64BegunMs = monotonicMs();
    peers.pConnection->begin(u64BegunMs + 100);

    const std::string strRead = readAll(*peers.pConnection);
    EXPECT_EQ("\r\n\r\nten bytes.", strRead.substr(strRead.find("\r\n\r\n")));

    EXPECT_GE(monotonicMs() - u64BegunMs, 100U);
    EXPECT_FALSE(peers.pConnection->end());
}

TEST(ApiConnection, PeerThatHasGoneIsSeen)
{
    Peers peers;
    EXPECT_TRUE(peers.pConnection->is_writable());

    close(std::exchange(peers.nPeer, -1));

    EXPECT_FALSE(peers.pConnection->is_writable());
    EXPECT_EQ(REQUEST_GONE, peers.pConnection->receive());
}
