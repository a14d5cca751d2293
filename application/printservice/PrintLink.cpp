// The line to the motion controller: commands and job lines out, replies in.
#include "PrintLink.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Log.h"
#include "ReplyCodec.h"
#include "Time.h"
#include "UART.h"

static const char* const SOURCE_NAME = "printservice/PrintService"; // its lines are the service's

static const char* const RECEIVED = "recv: %s\n";

// How long an answer is waited for.
static const Time COMMAND_REPLY_TIMEOUT(2, 0);
static const Time JOB_REPLY_TIMEOUT(10, 0);
static const Time MOVE_END_TIMEOUT(20, 0);
static const Time CUT_LINE_TIMEOUT(0, 500000);

/** Send, and report a port that is gone; a full one is reported by the port itself. */
static int sendBytes(UART& uart, const char* pBytes, int nSize)
{
    const int nSent = uart.send(pBytes, nSize, 0);
    const int nError = errno;
    const bool bGone = EIO == nError || ENODEV == nError || ENXIO == nError || EBADF == nError;
    if (nSent != nSize && bGone) {
        printf("serial port is gone: %s\n", strerror(nError));
    }
    return nSent;
}

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
    const PortUse use(*this);
    UART* const pUart = use.get();
    if (nullptr == pUart) {
        return 1;
    }
    const std::string strLine = ReplyCodec::encodeCommand(pCommand) + "\n";
    printf("%s\n", strLine.c_str());
    printf("send length:%zu\n", strLine.length());
    if (sendText(*pUart, strLine) != static_cast<int>(strLine.length())) {
        return 1;
    }
    char acReply[REPLY_SIZE + 1] = {0}; // a reply may fill the buffer
    if (pUart->read(acReply, REPLY_SIZE, COMMAND_REPLY_TIMEOUT) > 0) {
        LOG_AS("printSingleCmd", 7, RECEIVED, acReply);
    }
    return 0;
}

int PrintLink::sendLine(const std::string& strLine)
{
    const PortUse use(*this);
    UART* const pUart = use.get();
    return (nullptr == pUart) ? 0 : sendText(*pUart, strLine);
}

int PrintLink::sendBlock(const char* pBlock, int nSize)
{
    const PortUse use(*this);
    UART* const pUart = use.get();
    return (nullptr == pUart) ? 0 : sendBytes(*pUart, pBlock, nSize);
}

int PrintLink::sendText(UART& uart, const std::string& strText)
{
    if (m_bCut.exchange(false) && !endCutLine(uart)) {
        m_bCut = true;
        return 0;
    }
    const int nLength = static_cast<int>(strText.length());
    const int nSent = sendBytes(uart, strText.data(), nLength);
    if (nSent != nLength) {
        m_bCut = true;
    }
    return nSent;
}

bool PrintLink::endCutLine(UART& uart)
{
    if (1 != sendBytes(uart, "\n", 1)) {
        return false;
    }
    char acReply[REPLY_SIZE] = {0};
    (void)uart.read(acReply, sizeof(acReply), CUT_LINE_TIMEOUT); // dropped
    return true;
}

void PrintLink::clearErrorLock(int nCode)
{
    if (2 == nCode || 9 == nCode) {
        (void)sendCommand("$X"); // a controller that stays locked says so again
    }
}

std::string PrintLink::awaitReply()
{
    char acReply[REPLY_SIZE + 1] = {0};
    readReply(acReply, REPLY_SIZE, JOB_REPLY_TIMEOUT);
    return acReply;
}

void PrintLink::readReply(char* pBuffer, int nSize, const Time& timeout)
{
    memset(pBuffer, 0, static_cast<size_t>(nSize));
    const PortUse use(*this);
    UART* const pUart = use.get();
    if (nullptr == pUart || -1 == pUart->getFd()) {
        return;
    }
    if (pUart->read(pBuffer, nSize, timeout) >= 1) {
        const std::string strReply(pBuffer, strnlen(pBuffer, static_cast<size_t>(nSize)));
        LOG_AS("readUart", 7, RECEIVED, strReply.c_str());
    }
}

void PrintLink::awaitMove()
{
    const PortUse use(*this);
    UART* const pUart = use.get();
    if (nullptr != pUart) {
        char acReply[REPLY_SIZE] = {0};
        (void)pUart->read(acReply, sizeof(acReply), MOVE_END_TIMEOUT); // only waited for
    }
}
