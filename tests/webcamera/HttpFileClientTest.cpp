// Which files are served, with which header, and what closes the connection instead.
#include "HttpFileClient.h"

#include <climits>
#include <cstring>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CardFolder.h"
#include "Connection.h"
#include "Descriptors.h"
#include "FakeSystem.h"
#include "Fault.h"
#include "HttpFileHeader.h"
#include "SendQueueTcpClient.h"

namespace {

class HttpFileClientAnswer : public testing::Test
{
protected:
    /** @return the answer, "closed " in front when the connection is to be closed */
    static std::string get(const std::string& strPath)
    {
        Connection connection;
        const int nResult = connection.request("GET " + strPath + " HTTP/1.1\r\n\r\n");
        const std::string strAnswer = connection.receiveAll();
        return (0 == nResult) ? strAnswer : "closed " + strAnswer;
    }

    CardFolder m_www{"www"};
};

} // namespace

TEST_F(HttpFileClientAnswer, EveryKnownExtensionHasItsContentType)
{
    const char* const aType[][2] = {
        {".html", "text/html"},     {".htm", "text/html"},  {".css", "text/css"},
        {".js", "text/javascript"}, {".txt", "text/plain"}, {".jpg", "image/jpeg"},
        {".jpeg", "image/jpeg"},    {".png", "image/png"},  {".ico", "image/x-icon"},
    };
    for (const auto& type : aType) {
        m_www.write(std::string("f") + type[0], "some content");
        EXPECT_EQ(header(type[1], 12) + "some content", get(std::string("/f") + type[0]));
    }
}

TEST_F(HttpFileClientAnswer, DeliberateExtensionsAreComparedWithCase)
{
    for (const char* pName : {"f.HTML", "f.Html", "f.htmL"}) {
        m_www.write(pName, "some content");
        EXPECT_EQ("closed ", get(std::string("/") + pName)) << pName;
    }
}

TEST_F(HttpFileClientAnswer, OtherExtensionsAreRefused)
{
    for (const char* pName : {"f.svg", "f.json", "f.", "f.htmlx", "f.html.gz", "f", "f.tx"}) {
        m_www.write(pName, "some content");
        EXPECT_EQ("closed ", get(std::string("/") + pName)) << pName;
    }
}

TEST_F(HttpFileClientAnswer, LastDotBeginsTheExtension)
{
    m_www.write("a.b.txt", "x");
    EXPECT_EQ(header("text/plain", 1) + "x", get("/a.b.txt"));

    std::filesystem::create_directory(m_www.path() / "a.txt");
    m_www.write("a.txt/c", "x");
    EXPECT_EQ("closed ", get("/a.txt/c")) << "its extension is \".txt/c\"";
}

TEST_F(HttpFileClientAnswer, RootIsRefused)
{
    m_www.write("index.html", "x");

    EXPECT_EQ("closed ", get("/"));
}

TEST_F(HttpFileClientAnswer, MissingFileIsRefused)
{
    EXPECT_EQ("closed ", get("/missing.html"));
}

TEST_F(HttpFileClientAnswer, QueryIsNotPartOfThePath)
{
    m_www.write("f.txt", "x");

    EXPECT_EQ(header("text/plain", 1) + "x", get("/f.txt?v=2"));
}

TEST_F(HttpFileClientAnswer, DeliberateDotDotIsResolvedByTheFileSystem)
{
    m_www.write("../outside.txt", "out");

    EXPECT_EQ(header("text/plain", 3) + "out", get("/../outside.txt"));
}

TEST_F(HttpFileClientAnswer, NothingIsDecoded)
{
    m_www.write("a%20b.txt", "x");
    m_www.write("a b.txt", "y");

    EXPECT_EQ(header("text/plain", 1) + "x", get("/a%20b.txt"));
}

TEST_F(HttpFileClientAnswer, EmptyFileIsAHeader)
{
    m_www.write("f.txt", "");

    EXPECT_EQ(header("text/plain", 0), get("/f.txt"));
}

TEST_F(HttpFileClientAnswer, BinaryContentIsServedByteForByte)
{
    const std::string strContent = payload(300000);
    m_www.write("f.png", strContent);

    EXPECT_EQ(header("image/png", 300000) + strContent, get("/f.png"));
}

TEST_F(HttpFileClientAnswer, FifoIsRefusedWithoutBlocking)
{
    ASSERT_EQ(0, mkfifo((m_www.path() / "f.txt").c_str(), 0666));

    EXPECT_EQ("closed ", get("/f.txt"));
}

TEST_F(HttpFileClientAnswer, FolderAndDeviceAreRefused)
{
    std::filesystem::create_directory(m_www.path() / "f.txt");
    EXPECT_EQ("closed ", get("/f.txt"));

    std::filesystem::create_symlink("/dev/zero", m_www.path() / "zero.txt");
    EXPECT_EQ("closed ", get("/zero.txt"));
}

TEST_F(HttpFileClientAnswer, FileLargerThanAnIntIsRefused)
{
    m_www.write("f.txt", "");
    std::filesystem::resize_file(m_www.path() / "f.txt", static_cast<uintmax_t>(INT_MAX) + 1);

    EXPECT_EQ("closed ", get("/f.txt"));
}

TEST_F(HttpFileClientAnswer, LargestFileIsAsLargeAsAnInt)
{
    m_www.write("f.txt", "");
    std::filesystem::resize_file(m_www.path() / "f.txt", INT_MAX);
    const std::string strHeader = header("text/plain", INT_MAX);
    Connection connection;

    EXPECT_EQ(0, connection.request("GET /f.txt HTTP/1.1\r\n\r\n"));

    EXPECT_EQ(strHeader, connection.receive(strHeader.size()));
}

TEST_F(HttpFileClientAnswer, PieceHas32KiB)
{
    m_www.write("f.txt", payload(100000));
    FaultScope fault("malloc=32768:1:ENOMEM");

    EXPECT_EQ("closed " + header("text/plain", 100000), get("/f.txt"));

    EXPECT_EQ(1U, faultHits());
}

TEST_F(HttpFileClientAnswer, FileOfAByteMoreThanAPieceIsWhole)
{
    m_www.write("f.txt", payload(32769));

    EXPECT_EQ(header("text/plain", 32769) + payload(32769), get("/f.txt"));
}

TEST_F(HttpFileClientAnswer, FileThatCannotBeReadWholeIsAHeaderThatLeavesBeforeTheClose)
{
    // A kernel's file tells a page as its size and has fewer bytes.
    const char* const pShort = "/sys/devices/system/cpu/online";
    ASSERT_TRUE(std::filesystem::is_regular_file(pShort));
    const auto uSize = std::filesystem::file_size(pShort);
    std::filesystem::create_symlink(pShort, m_www.path() / "f.txt");

    EXPECT_EQ("closed " + header("text/plain", uSize), get("/f.txt"));
}

TEST_F(HttpFileClientAnswer, FileOfAnySizeBindsOnePiece)
{
    m_www.write("f.png", "");
    std::filesystem::resize_file(m_www.path() / "f.png", 100 << 20);
    const uint32_t u32Before = ClientMemory::getInstance().getBytes();
    Connection connection;

    EXPECT_EQ(0, connection.request("GET /f.png HTTP/1.1\r\n\r\n"));

    EXPECT_LT(ClientMemory::getInstance().getBytes(), u32Before + 100000);
    EXPECT_EQ(0u, connection.receive(1000).find("HTTP/1.0 200 OK\r\n"));
}

TEST_F(HttpFileClientAnswer, FileThatShrinksClosesBehindWhatThereIs)
{
    const std::string strContent = payload(500001);
    m_www.write("f.png", payload(1000000));
    Connection connection(4096);
    EXPECT_EQ(0, connection.request("GET /f.png HTTP/1.1\r\n\r\n"));
    std::filesystem::resize_file(m_www.path() / "f.png", 500001);

    std::string strGot;
    int nResult = 0;
    while (0 == nResult) {
        strGot += connection.receive();
        nResult = connection.writeOn();
    }
    strGot += connection.receive();

    EXPECT_EQ(1, nResult) << "closed";
    EXPECT_EQ(header("image/png", 1000000).size() + 500001, strGot.size());
    EXPECT_TRUE(header("image/png", 1000000) + strContent == strGot);
}

TEST_F(HttpFileClientAnswer, FileThatGrowsIsSentInItsFirstSize)
{
    m_www.write("f.png", payload(300000));
    Connection connection(4096);
    EXPECT_EQ(0, connection.request("GET /f.png HTTP/1.1\r\n\r\n"));
    m_www.write("f.png", payload(900000));

    EXPECT_TRUE(header("image/png", 300000) + payload(300000) == connection.receiveAll());
}

TEST_F(HttpFileClientAnswer, DescriptorIsClosedOnceTheFileHasBeenRead)
{
    m_www.write("f.txt", payload(100000));
    Connection connection(4096);
    EXPECT_EQ(0, connection.request("GET /f.txt HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(1u, openDescriptors("/f.txt").size());

    (void)connection.receiveAll();

    EXPECT_EQ(0u, openDescriptors("/f.txt").size());
}

TEST_F(HttpFileClientAnswer, DescriptorIsClosedBeforeTheLastPieceHasLeft)
{
    m_www.write("f.txt", payload(20000));
    Connection connection(4096);

    EXPECT_EQ(0, connection.request("GET /f.txt HTTP/1.1\r\n\r\n"));

    EXPECT_FALSE(connection.client().isDrained());
    EXPECT_EQ(0u, openDescriptors("/f.txt").size());
}

TEST_F(HttpFileClientAnswer, WhatWaitsIsSentBeforeTheFileIsLookedFor)
{
    class Waiting : public SendQueueTcpClient
    {
    public:
        int wait(const char* pText)
        {
            return enqueue(SafePointer_C<char>(strdup(pText)), static_cast<int>(strlen(pText)));
        }
    };
    int anSocket[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, anSocket));
    Waiting client;
    client.setSocket(TcpSocket(anSocket[0]));
    ASSERT_EQ(0, client.wait("earlier"));
    HttpFileClient file(client, "/missing.txt");

    EXPECT_EQ(1, file.start());

    char acBuffer[8] = {0};
    EXPECT_EQ(7, recv(anSocket[1], acBuffer, sizeof(acBuffer), 0));
    EXPECT_STREQ("earlier", acBuffer);
    close(anSocket[0]);
    close(anSocket[1]);
}

TEST_F(HttpFileClientAnswer, DeliberateSilenceWithoutAFile)
{
    m_www.write("f.txt", "x");
    FaultScope fault("stat=/tmp/run/mountd:1:EIO");

    EXPECT_EQ("closed ", get("/f.txt")) << "no header with a length of -1";
}

TEST_F(HttpFileClientAnswer, WithoutMemoryForItsHeaderTheConnectionIsClosed)
{
    m_www.write("f.txt", "x");
    FaultScope fault("calloc=1024:1:ENOMEM");

    EXPECT_EQ("closed ", get("/f.txt"));
    EXPECT_EQ(1U, faultHits());
}

// A C library may answer null for a block of no bytes.
TEST_F(HttpFileClientAnswer, EmptyFileHasABlockOfOneByte)
{
    m_www.write("f.txt", "");
    FaultScope fault("malloc=1:1:ENOMEM");

    EXPECT_EQ("closed " + header("text/plain", 0), get("/f.txt"));
    EXPECT_EQ(1U, faultHits());
}

TEST_F(HttpFileClientAnswer, EmptyFileWhoseBlockGetsNoHandleIsNoSuccess)
{
    m_www.write("f.txt", "");
    const std::string strSize = std::to_string(sizeof(SafePointerBlock));
    // The handles before it are the request's and the header's.
    FaultScope fault(("malloc=" + strSize + ":3:ENOMEM").c_str());

    EXPECT_EQ("closed " + header("text/plain", 0), get("/f.txt"));
    EXPECT_EQ(1U, faultHits());
}

TEST_F(HttpFileClientAnswer, StopReturnsSuccess)
{
    Connection connection;
    HttpFileClient responder(connection.client(), "/f.txt");

    EXPECT_EQ(1, responder.start());
    EXPECT_EQ(0, responder.stop());
}
