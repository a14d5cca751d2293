// Snapshots, each requested on a connection without its server.
#pragma once

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "Connection.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "Mask.h"

class HttpSnapClientFixture : public testing::Test
{
protected:
    static std::string request(const std::string& strQuery)
    {
        return "GET /snap" + strQuery + " HTTP/1.1\r\n\r\n";
    }

    /** The golden header; its two varying numbers are masked. */
    static std::string golden(size_t uSize, const std::string& strFileName)
    {
        return "HTTP/1.0 200 OK\r\n"
               "Connection: close\r\n"
               "Server: MJPG-Streamer/0.2\r\n"
               "Cache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\n"
               "Pragma: no-cache\r\n"
               "Expires: Mon, 3 Jan 2000 12:34:56 GMT\r\n"
               "Content-type: image/jpeg\r\n"
               "Content-Length: " +
               std::to_string(uSize) +
               "\r\n"
               "X-Timestamp: ##########.######\r\n"
               "Filename: " +
               strFileName +
               "\r\n"
               "\r\n";
    }

    /** Take one answer off the front; "" and a failure unless it is one. */
    static std::string takeAnswer(std::string& strStream, size_t uSize,
                                  const std::string& strFileName)
    {
        const size_t uHead = strStream.find("\r\n\r\n") + 4;
        std::string strHead = strStream.substr(0, uHead);
        const long lSeconds = maskNumber(strHead, "X-Timestamp: ", ".");
        EXPECT_LE(lSeconds, preciseSeconds());
        EXPECT_GE(lSeconds, preciseSeconds() - 60);
        EXPECT_GE(maskNumber(strHead, "##.", "\r\n"), 0);
        if (golden(uSize, strFileName) != strHead) {
            EXPECT_EQ(golden(uSize, strFileName), strHead);
            return "";
        }
        EXPECT_GE(strStream.size(), uHead + uSize);
        const std::string strPicture = strStream.substr(uHead, uSize);
        strStream.erase(0, uHead + uSize);
        return strPicture;
    }

    void SetUp() override
    {
        FakeSystem::reset();
    }

    void deliver(uint32_t u32Size = 5000)
    {
        PVENC_FRAME_T frame = makeFrame(u32Size);
        FakeSystem::deliver(frame);
    }

    /** Request a snapshot, deliver a frame, and expect it as the answer. */
    void expectAnswered(const std::string& strFileName, uint32_t u32Size = 5000)
    {
        Connection connection;
        ASSERT_EQ(0, connection.request(request("?filename=" + strFileName)));
        deliver(u32Size);
        std::string strStream = connection.receive();
        EXPECT_TRUE(payload(u32Size) == takeAnswer(strStream, u32Size, strFileName));
        EXPECT_EQ("", strStream);
    }

    Connection m_connection;
    LogCapture m_log;
};
