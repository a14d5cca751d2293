// The line to the motion controller: commands and job lines out, replies in.
#include "PrintLink.h"

#include <cstdio>
#include <cstring>

#include "Log.h"
#include "ReplyCodec.h"
#include "Time.h"
#include "UART.h"

static const char* const SOURCE_NAME = "printservice/PrintService"; // its lines are the service's

static const char* const RECEIVED = "recv: %s\n";

void PrintLink::setPort(UART* pUart)
{
    m_pUart = pUart;
}

bool PrintLink::hasPort() const
{
    return nullptr != m_pUart;
}

int PrintLink::sendCommand(const char* pCommand)
{
    UART* const pUart = m_pUart;
    if (nullptr == pUart) {
        return 1;
    }
    const std::string strLine = ReplyCodec::encodeCommand(pCommand) + "\n";
    printf("%s\n", strLine.c_str());
    printf("send length:%zu\n", strLine.length());
    const int nLength = static_cast<int>(strLine.length());
    if (pUart->send(strLine.data(), nLength, 0) != nLength) {
        return 1;
    }
    char acReply[REPLY_SIZE + 1] = {0}; // a reply may fill the buffer
    if (pUart->read(acReply, REPLY_SIZE, Time(2, 0)) > 0) {
        Log::getInstance().log(SOURCE_NAME, __LINE__, "printSingleCmd", 7, RECEIVED, acReply);
    }
    return 0;
}

int PrintLink::sendLine(const std::string& strLine)
{
    return sendBlock(strLine.data(), static_cast<int>(strLine.length()));
}

int PrintLink::sendBlock(const char* pBlock, int nSize)
{
    UART* const pUart = m_pUart;
    return (nullptr == pUart) ? 0 : pUart->send(pBlock, nSize, 0);
}

void PrintLink::readReply(char* pBuffer, int nSize, const Time& timeout)
{
    memset(pBuffer, 0, static_cast<size_t>(nSize));
    UART* const pUart = m_pUart;
    if (nullptr == pUart || -1 == pUart->getFd()) {
        return;
    }
    if (pUart->read(pBuffer, nSize, timeout) >= 1) {
        const std::string strReply(pBuffer, strnlen(pBuffer, static_cast<size_t>(nSize)));
        Log::getInstance().log(SOURCE_NAME, __LINE__, "readUart", 7, RECEIVED, strReply.c_str());
    }
}

void PrintLink::awaitMove()
{
    UART* const pUart = m_pUart;
    if (nullptr != pUart) {
        char acReply[REPLY_SIZE] = {0};
        (void)pUart->read(acReply, sizeof(acReply), Time(20, 0)); // only waited for
    }
}
