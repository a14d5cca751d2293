// A G-code job: kept, started, sent line by line, paused and stopped.
#include "PrintJob.h"

#include <cstdio>

#include "Log.h"
#include "PrintLink.h"
#include "ReplyCodec.h"
#include "SelfStoppingThread.h"
#include "StatusReport.h"
#include "Time.h"

static const char* const SOURCE_NAME = "printservice/PrintService"; // its lines are the service's

static const char* const LASER_OFF = "M5";

static const int LINE_SIZE = 256; // longer job lines go out in pieces
static const Time HALF_A_SECOND(0, 500000);
static const Time IDLE_SLEEP(0, 20000);

void PrintJob::save(const void* pData, int nLength)
{
    while (!replaceFile(pData, nLength)) {
        stop();
    }
    puts("receive file successed!"); // sic
    sleepFor(HALF_A_SECOND);
    MutexGuard guard(m_mtxStart);
    if (m_jobFile.measure()) { // else it has been started in the meantime
        m_nState = PRINT_STATE_FILE_READY;
    }
}

/** @return false when there is a job to end first, which waits for the thread: not with the lock */
bool PrintJob::replaceFile(const void* pData, int nLength)
{
    MutexGuard guard(m_mtxStart);
    if (isUnderWay()) {
        return false;
    }
    m_jobFile.save(pData, nLength);
    return true;
}

bool PrintJob::start()
{
    MutexGuard guard(m_mtxStart);
    PRINT_STATE_E eFormer = m_nState;
    do {
        if (PRINT_STATE_PRINTING == eFormer) {
            puts("printer is working");
            return false;
        }
        // The thread sets the state, too. Deliberate: stays so when the start fails.
    } while (!m_nState.compare_exchange_weak(eFormer, PRINT_STATE_PRINTING));
    if (PRINT_STATE_PAUSED == eFormer && m_jobFile.isOpen()) {
        m_thread.start();
        return true;
    }
    puts("start working!");
    if (!m_link.hasPort()) {
        return false;
    }
    if (!m_jobFile.open()) {
        puts("open gcode failed!");
        return false;
    }
    m_thread.start();
    return true;
}

void PrintJob::pause()
{
    m_thread.stop();
    switchLaserOff();
    m_nState = PRINT_STATE_PAUSED;
}

void PrintJob::stop()
{
    m_thread.stop();
    m_nState = PRINT_STATE_STOPPED;
    m_jobFile.restart();
    // Before the wait for an answer: what a start opens from now on is the next job.
    m_jobFile.close();
    switchLaserOff();
}

void PrintJob::switchLaserOff()
{
    if (0 != m_link.sendCommand(LASER_OFF)) {
        puts("laser off could not be sent!"); // still stopped or paused
    }
}

float PrintJob::getProgress() const
{
    return m_jobFile.getProgress();
}

bool PrintJob::isUnderWay() const
{
    const PRINT_STATE_E eState = m_nState;
    return PRINT_STATE_PRINTING == eState || PRINT_STATE_PAUSED == eState;
}

bool PrintJob::hasFile() const
{
    return m_jobFile.exists();
}

void PrintJob::sendNextLine()
{
    char acLine[LINE_SIZE] = {0};
    const JOB_LINE_E eLine = m_jobFile.nextLine(acLine, LINE_SIZE);
    if (JOB_LINE_NONE == eLine) {
        sleepFor(IDLE_SLEEP); // Deliberate: a last line without line end waits here for stop()
        return;
    }
    if (JOB_LINE_END == eLine) {
        m_thread.askToStop(); // first: a start that the state lets through takes it back
        m_nState = PRINT_STATE_STOPPED;
        puts("print job finish!");
    }
    // Deliberate: a line keeps its own line end too, and the end of the job is an empty line.
    sendLine(std::string(acLine) + "\n");
    takeReply(JOB_LINE_END == eLine);
}

void PrintJob::sendLine(const std::string& strLine)
{
    printf("send out:%s", strLine.c_str());
    const int nLength = static_cast<int>(strLine.length());
    const int nSent = m_link.sendLine(strLine);
    if (nSent != nLength) {
        // Named after the loop, which sends the line.
        LOG_AS("printLoop", 7, "send: %s total bytes:%d, but send %d bytes\n", strLine.c_str(),
               nLength, nSent);
        puts("send failed!");
        m_thread.stop(); // Deliberate: the state stays; the job is stuck until stop().
    }
}

void PrintJob::takeReply(bool bAfterEnd)
{
    const std::string strReply = m_link.awaitReply();
    const int nError = ReplyCodec::getErrorCode(strReply);
    const int nAlarm = ReplyCodec::getAlarmCode(strReply);
    const int nStatus = ReplyCodec::getStatusCode(strReply);
    if (nStatus > 0) {
        if (!bAfterEnd) {
            followStatus(nStatus);
        }
        reportStatus(nStatus);
        printf("get status code:%d \n", nStatus);
    }
    // Deliberate: while paused a line is repeated even when it was taken.
    if (!ReplyCodec::isAck(strReply) || (!bAfterEnd && PRINT_STATE_PAUSED == m_nState)) {
        sleepFor(HALF_A_SECOND);
        m_jobFile.seekBack();
    }
    if (nError > 0) {
        printf("get error code:%d \n", nError);
        m_link.clearErrorLock(nError);
    }
    if (nAlarm > 0) {
        printf("get alarm code:%d \n", nAlarm);
    }
}

void PrintJob::followStatus(int nCode)
{
    if (1 == nCode || 3 == nCode) {
        m_nState = PRINT_STATE_PAUSED;
    } else if (4 == nCode) {
        m_nState = PRINT_STATE_PRINTING;
    }
}
