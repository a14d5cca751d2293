// The laser arm: the line to its motion controller, G-code jobs, moves and firmware.
#include "PrintService.h"

#include <cstdio>
#include <vector>

#include "ControllerPort.h"
#include "EventBus.h"
#include "IdlePrintEvent.h"
#include "JobThread.h"
#include "Log.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "ReplyCodec.h"
#include "StatusReportEvent.h"
#include "Time.h"

static const char* const SOURCE_NAME = "printservice/PrintService";

static const char* const LASER_OFF = "M5";

static const char* const STATUS_1 = "Wx01";
static const char* const STATUS_2 = "Wx02";
static const char* const STATUS_3 = "Wx03";
static const char* const STATUS_4 = "Wx04";

static const int LINE_SIZE = 256;       // longer job lines go out in pieces
static const Time IDLE_SLEEP(0, 20000); // Deliberate: a thread with nothing to do does not spin
static const Time HALF_A_SECOND(0, 500000);

PrintService& PrintService::getInstance()
{
    static PrintService s_instance;
    return s_instance;
}

PrintService::PrintService() : m_port(ControllerPort::getInstance())
{
    m_thread = std::make_unique<JobThread>(&PrintService::printLoop, this);
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
    EventBus<MoveLaserEvent>::unsubscribe(this, &PrintService::onMoveLaserEvent);
    EventBus<MeasureEvent>::unsubscribe(this, &PrintService::onMeasureEvent);
    m_thread.reset();
}

void PrintService::setUart(UART* pUart)
{
    m_link.setPort(pUart);
}

int PrintService::printSingleCmd(const char* pCommand, int /*nLength*/)
{
    if (!m_link.hasPort()) {
        return 1;
    }
    if ('0' == pCommand[0]) {
        m_firmware.send();
    }
    return m_link.sendCommand(pCommand);
}

int PrintService::printSingleCmd(const std::string& strCommand)
{
    return printSingleCmd(strCommand.c_str(), static_cast<int>(strCommand.length()));
}

void PrintService::readUart(char* pBuffer, int nSize, int nSeconds, int nMicroseconds)
{
    m_link.readReply(pBuffer, nSize, Time(nSeconds, nMicroseconds));
}

int PrintService::saveGcode(const void* pData, int nLength)
{
    while (!replaceJob(pData, nLength)) {
        (void)stopPrint(); // always 0
    }
    puts("receive file successed!"); // sic
    sleepFor(HALF_A_SECOND);
    MutexGuard guard(m_mtxStart);
    if (m_jobFile.measure()) { // else it has been started in the meantime
        m_nState = PRINT_STATE_FILE_READY;
    }
    return 0;
}

/** @return false when there is a job to end first, which waits for the thread: not with the lock */
bool PrintService::replaceJob(const void* pData, int nLength)
{
    MutexGuard guard(m_mtxStart);
    const PRINT_STATE_E eState = m_nState;
    if (PRINT_STATE_PRINTING == eState || PRINT_STATE_PAUSED == eState) {
        return false;
    }
    m_jobFile.save(pData, nLength);
    return true;
}

int PrintService::startPrint()
{
    MutexGuard guard(m_mtxStart);
    PRINT_STATE_E eFormer = m_nState;
    do {
        if (PRINT_STATE_PRINTING == eFormer) {
            puts("printer is working");
            return 1;
        }
        // The thread sets the state, too. Deliberate: stays so when the start fails.
    } while (!m_nState.compare_exchange_weak(eFormer, PRINT_STATE_PRINTING));
    if (PRINT_STATE_PAUSED == eFormer && m_jobFile.isOpen()) {
        m_thread->start();
        return 0;
    }
    puts("start working!");
    if (!m_link.hasPort()) {
        return 1;
    }
    if (!m_jobFile.open()) {
        puts("open gcode failed!");
        return 1;
    }
    m_thread->start();
    return 0;
}

int PrintService::pausePrint()
{
    m_thread->stop();
    switchLaserOff();
    m_nState = PRINT_STATE_PAUSED;
    return 0;
}

int PrintService::stopPrint()
{
    m_thread->stop();
    m_nState = PRINT_STATE_STOPPED;
    m_jobFile.restart();
    switchLaserOff();
    m_jobFile.close();
    return 0;
}

void PrintService::switchLaserOff()
{
    if (0 != printSingleCmd(LASER_OFF)) {
        puts("laser off could not be sent!"); // still stopped or paused
    }
}

int PrintService::getProgress(float* pProgress)
{
    *pProgress = m_jobFile.getProgress();
    printf("persent %f\n", static_cast<double>(*pProgress)); // sic
    return 0;
}

int PrintService::printLoop()
{
    const PRINT_STATE_E eState = m_nState;
    if (PRINT_STATE_PRINTING != eState && PRINT_STATE_PAUSED != eState) {
        pollStatus();
        sleepFor(IDLE_SLEEP); // a dead line answers at once
    } else {
        char acLine[LINE_SIZE] = {0};
        const JOB_LINE_E eLine = m_jobFile.nextLine(acLine, LINE_SIZE);
        if (JOB_LINE_NONE == eLine) {
            sleepFor(IDLE_SLEEP); // a last line without a line end waits here for stopPrint()
        } else {
            if (JOB_LINE_END == eLine) {
                m_thread->askToStop(); // first: a start that the state lets through takes it back
                m_nState = PRINT_STATE_STOPPED;
                puts("print job finish!");
            }
            // Deliberate: a line keeps its own line end too, and the end of the job is an empty
            // line.
            sendLine(std::string(acLine) + "\n");
            takeReply(JOB_LINE_END == eLine);
        }
    }
    m_thread->parkIfAsked();
    return 0;
}

void PrintService::sendLine(const std::string& strLine)
{
    printf("send out:%s", strLine.c_str());
    const int nLength = static_cast<int>(strLine.length());
    const int nSent = m_link.sendLine(strLine);
    if (nSent != nLength) {
        // Named after the loop, which sends the line.
        LOG_AS("printLoop", 7, "send: %s total bytes:%d, but send %d bytes\n", strLine.c_str(),
               nLength, nSent);
        puts("send failed!");
        m_thread->stop(); // Deliberate: the state stays; the job is stuck until stopPrint().
    }
}

void PrintService::takeReply(bool bAfterEnd)
{
    char acReply[PrintLink::REPLY_SIZE + 1] = {0};
    m_link.readReply(acReply, PrintLink::REPLY_SIZE, Time(10, 0));
    const std::string strReply(acReply);
    const int nError = ReplyCodec::getErrorCode(strReply);
    const int nAlarm = ReplyCodec::getAlarmCode(strReply);
    const int nStatus = ReplyCodec::getStatusCode(strReply);
    if (nStatus > 0) {
        onPrintingStatus(nStatus, bAfterEnd);
    }
    // Deliberate: while paused a line is repeated even when it was taken.
    if (!ReplyCodec::isAck(strReply) || (!bAfterEnd && PRINT_STATE_PAUSED == m_nState)) {
        sleepFor(HALF_A_SECOND);
        m_jobFile.seekBack();
    }
    if (nError > 0) {
        printf("get error code:%d \n", nError);
        onErrorCode(nError);
    }
    if (nAlarm > 0) {
        printf("get alarm code:%d \n", nAlarm);
    }
}

void PrintService::onErrorCode(int nCode)
{
    if (2 == nCode || 9 == nCode) {
        (void)printSingleCmd("$X"); // a controller that stays locked says so again
    }
}

void PrintService::onPrintingStatus(int nCode, bool bAfterEnd)
{
    if (!bAfterEnd && (1 == nCode || 3 == nCode)) {
        m_nState = PRINT_STATE_PAUSED;
    } else if (!bAfterEnd && 4 == nCode) {
        m_nState = PRINT_STATE_PRINTING;
    }
    switch (nCode) {
    case 1:
        reportStatus(STATUS_1);
        break;
    case 2:
        reportStatus(STATUS_2);
        break;
    case 3:
        reportStatus(STATUS_3);
        break;
    case 4:
        reportStatus(STATUS_4);
        break;
    default:
        break;
    }
    printf("get status code:%d \n", nCode);
}

void PrintService::pollStatus()
{
    char acReply[PrintLink::REPLY_SIZE + 1] = {0};
    m_link.readReply(acReply, PrintLink::REPLY_SIZE, Time(10, 0));
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
        if (m_jobFile.exists()) {
            reportStatus(STATUS_3);
            (void)startPrint(); // prints a refusal
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

int PrintService::onMoveLaserEvent(Event* pEvent)
{
    const MoveLaserEvent& event = dynamic_cast<MoveLaserEvent&>(*pEvent);
    const double dX = static_cast<double>(event.m_fX);
    const double dY = static_cast<double>(event.m_fY);
    (void)printSingleCmd("$H\n"); // the move is tried whatever becomes of it
    m_link.awaitMove();
    char acCommand[128] = {0}; // the largest float has 39 digits before the point
    // Deliberate: the arm's axes point against the picture's.
    snprintf(acCommand, sizeof(acCommand), "G05 X%.2f Y%.2f F2000 \nM18 S1\n", -dX, -dY);
    (void)printSingleCmd(acCommand); // the result is not asked for
    m_link.awaitMove();
    LOG(7, "move to (%f, %f)\n", dX, dY);
    return -1;
}

int PrintService::onMeasureEvent(Event* pEvent)
{
    const MeasureEvent& event = dynamic_cast<MeasureEvent&>(*pEvent);
    const double dZ = static_cast<double>(event.m_fValue);
    char acCommand[128] = {0};
    // Deliberate: negated too; zero goes out as -0.00.
    snprintf(acCommand, sizeof(acCommand), "G05 Z%.2f F1000 \n", -dZ);
    (void)printSingleCmd(acCommand); // the result is not asked for
    m_link.awaitMove();
    LOG(7, "move Z to (%f)\n", dZ);
    return -1;
}

int PrintService::updateFirmware(const void* pData, int nLength)
{
    puts("Now in the update firmware function");
    if (!m_link.hasPort()) {
        return 1;
    }
    m_firmware.keep(pData, nLength);
    m_firmware.send();
    return 0;
}

void PrintService::exportResetGpio()
{
    m_port.getResetLine().makeOutput();
}

int PrintService::resetStm32()
{
    m_port.getResetLine().pulse();
    return 0;
}
