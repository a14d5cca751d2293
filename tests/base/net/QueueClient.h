// A connection with a send queue, on a pair of sockets.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include <sys/epoll.h>

#include <gtest/gtest.h>

#include "NetPair.h"
#include "SendQueueTcpClient.h"

inline SafePointer_C<char> block(const std::string& strData)
{
    char* pData = static_cast<char*>(malloc(strData.size() + 1));
    memcpy(pData, strData.c_str(), strData.size() + 1);
    return SafePointer_C<char>(pData);
}

class QueueClient : public SendQueueTcpClient
{
public:
    using SendQueueTcpClient::getWaitingBytes;

    explicit QueueClient(NetPair& pair)
    {
        EXPECT_EQ(0, pair.m_near.setOptBlock(false));
        shrinkSendBuffer(pair.m_near);
        setSocket(pair.m_near);
    }

    void sendText(const std::string& strText)
    {
        send(block(strText), static_cast<int>(strText.size()));
    }

    /** What the reactor does when the socket is writable. */
    int write()
    {
        int nFd = m_socket.getFd();
        TcpClient* pThis = this;
        EPollEvent event(EPOLLOUT, &nFd, &pThis);
        return onWrite(event);
    }
};

inline std::string faultOnSend(NetPair& pair, const char* pWhich, int nError)
{
    return "sendmsg=" + std::to_string(pair.m_near.getFd()) + ":" + pWhich + ":" +
           std::to_string(nError);
}

const std::string LARGE(2 * 1024 * 1024, 'x');
