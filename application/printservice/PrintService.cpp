// The laser arm's line to its motion controller: commands, replies and what they report.
#include "PrintService.h"

#include <cstring>
#include <vector>

#include <unistd.h>

#include "EventBus.h"
#include "IdlePrintEvent.h"
#include "Log.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "ReplyCodec.h"
#include "StatusReportEvent.h"
#include "Time.h"
#include "UART.h"

static const char* const SOURCE_NAME = "printservice/PrintService";

static const int REPLY_SIZE = 64;

static const char* const STATUS_1 = "Wx01";
static const char* const STATUS_2 = "Wx02";
static const char* const STATUS_3 = "Wx03";
static const char* const STATUS_4 = "Wx04";

PrintService& PrintService::getInstance()
{
    static PrintService s_instance;
    return s_instance;
}

PrintService::PrintService()
{
    m_thread =
        std::make_unique<Thread>(&PrintService::printLoop, this, "printservice", 0, 0, 0, true);
    EventBus<MoveLaserEvent>::subscribe(this, &PrintService::onMoveLaserEvent);
    EventBus<MeasureEvent>::subscribe(this, &PrintService::onMeasureEvent);
    // Used by the thread, so they have to outlive this object.
    EventBus<StatusReportEvent>::getInstance();
    EventBus<IdlePrintEvent>::getInstance();
    m_thread->stop();
}

PrintService::~PrintService()
{
    m_thread->stop();
    {
        MutexGuard guard(m_mtxFile);
        closeFile();
    }
    EventBus<MoveLaserEvent>::unsubscribe(this, &PrintService::onMoveLaserEvent);
    EventBus<MeasureEvent>::unsubscribe(this, &PrintService::onMeasureEvent);
    m_thread.reset();
}

void PrintService::setUart(UART* pUart)
{
    m_pUart = pUart;
}

int PrintService::printSingleCmd(const char* pCommand, int /*nLength*/)
{
    UART* const pUart = m_pUart;
    if (nullptr == pUart) {
        return 1;
    }
    if ('0' == pCommand[0]) {
        puts("start update");
        sendFirmware();
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
        LOG(7, "recv: %s\n", acReply);
    }
    return 0;
}

int PrintService::printSingleCmd(const std::string& strCommand)
{
    return printSingleCmd(strCommand.c_str(), static_cast<int>(strCommand.length()));
}

void PrintService::readUart(char* pBuffer, int nSize, int nSeconds, int nMicroseconds)
{
    memset(pBuffer, 0, static_cast<size_t>(nSize));
    UART* const pUart = m_pUart;
    if (nullptr == pUart || -1 == pUart->getFd()) {
        return;
    }
    if (pUart->read(pBuffer, nSize, Time(nSeconds, nMicroseconds)) >= 1) {
        LOG(7, "recv: %s\n",
            std::string(pBuffer, strnlen(pBuffer, static_cast<size_t>(nSize))).c_str());
    }
}

void PrintService::pollStatus()
{
    char acReply[REPLY_SIZE + 1] = {0};
    readUart(acReply, REPLY_SIZE, 10, 0);
    const int nCode = ReplyCodec::getStatusCode(acReply);
    if (nCode <= 0) {
        return;
    }
    onIdleStatus(nCode);
    printf("get status code:%d \n", nCode);
}

void PrintService::onIdleStatus(int nCode)
{
    switch (nCode) {
    case 1:
        reportStatus(STATUS_1);
        break;
    case 2:
        reportStatus(STATUS_2);
        break;
    case 3:
        if (PRINT_STATE_FILE_READY != m_nState) {
            askSubscribers();
            reportStatus(STATUS_3);
            break;
        }
        (void)printSingleCmd("~"); // the job is started whatever becomes of it
        if (0 == access("tmp.gcode", F_OK)) {
            reportStatus(STATUS_3);
            (void)startPrint(); // tells standard output when it refuses
        }
        break;
    case 4:
        (void)pausePrint(); // always 0
        reportStatus(STATUS_4);
        break;
    default:
        break;
    }
}

void PrintService::onPrintingStatus(int nCode)
{
    switch (nCode) {
    case 1:
        m_nState = PRINT_STATE_PAUSED;
        reportStatus(STATUS_1);
        break;
    case 2:
        reportStatus(STATUS_2);
        break;
    case 3:
        m_nState = PRINT_STATE_PAUSED;
        reportStatus(STATUS_3);
        break;
    case 4:
        m_nState = PRINT_STATE_PRINTING;
        reportStatus(STATUS_4);
        break;
    default:
        break;
    }
    printf("get status code:%d \n", nCode);
}

void PrintService::reportStatus(const char* pCode)
{
    StatusReportEvent event(pCode);
    EventBus<StatusReportEvent>::publish(event);
}

void PrintService::askSubscribers()
{
    std::vector<int32_t> vecValue;
    int32_t s32Arg1 = 0;
    int32_t s32Arg2 = 0;
    IdlePrintEvent event(&vecValue, &s32Arg1, &s32Arg2);
    EventBus<IdlePrintEvent>::publish(event);
    (void)ReplyCodec::encodeIdleReport(vecValue, s32Arg1, s32Arg2); // Deliberate: goes nowhere.
}

void PrintService::onErrorCode(int nCode)
{
    if (2 == nCode || 9 == nCode) {
        (void)printSingleCmd("$X"); // a controller that stays locked says so again
    }
}

void PrintService::takeReply()
{
    char acReply[REPLY_SIZE + 1] = {0};
    readUart(acReply, REPLY_SIZE, 10, 0);
    const std::string strReply(acReply);
    const int nError = ReplyCodec::getErrorCode(strReply);
    const int nAlarm = ReplyCodec::getAlarmCode(strReply);
    const int nStatus = ReplyCodec::getStatusCode(strReply);
    if (nStatus > 0) {
        onPrintingStatus(nStatus);
    }
    if (PRINT_STATE_PAUSED == m_nState) {
        seekBack();
    }
    if (!ReplyCodec::isAck(strReply)) {
        sleepFor(Time(0, 500000));
        seekBack();
    }
    if (nError > 0) {
        printf("get error code:%d \n", nError);
        onErrorCode(nError);
    }
    if (nAlarm > 0) {
        printf("get alarm code:%d \n", nAlarm);
    }
}
