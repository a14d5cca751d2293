// The laser arm's work: G-code jobs, moves, firmware upload and reset.
#include "PrintService.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fcntl.h>

#include "Log.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "Time.h"
#include "UART.h"

static const char* const SOURCE_NAME = "printservice/PrintService";

static const char* const JOB_FILE = "tmp.gcode";
static const char* const RECEIVED_IMAGE = "firmware.bin";
static const char* const SENT_IMAGE = "pp.bin";
static const char* const LASER_OFF = "M5";

static const char* const GPIO_VALUE = "/sys/class/gpio/gpio106/value";
static const unsigned RESET_GPIO = 106;

static const int LINE_SIZE = 256;       // longer job lines go out in pieces
static const int BLOCK_SIZE = 2048;     // of a firmware image
static const Time IDLE_SLEEP(0, 20000); // keeps a thread that has nothing to do from spinning

int PrintService::saveGcode(const void* pData, int nLength)
{
    {
        MutexGuard guard(m_mtxFile); // the end of an earlier job must not remove this one
        FILE* const pFile = fopen(JOB_FILE, "w+e");
        if (nullptr != pFile) {
            fwrite(pData, 1, (nLength > 0) ? static_cast<size_t>(nLength) : 0, pFile);
            fclose(pFile);
        }
    }
    puts("receive file successed!"); // sic
    sleepFor(Time(0, 500000));
    struct stat status
    {
    };
    if (0 == stat(JOB_FILE, &status)) {
        m_nFileSize = static_cast<int32_t>(status.st_size);
    }
    m_nState = PRINT_STATE_FILE_READY;
    return 0;
}

int PrintService::startPrint()
{
    if (PRINT_STATE_PRINTING == m_nState) {
        puts("printer is working");
        return 1;
    }
    if (PRINT_STATE_PAUSED == m_nState) {
        m_nState = PRINT_STATE_PRINTING; // before the thread looks: paused, it would repeat a line
        startThread();
        return 0;
    }
    puts("start working!");
    m_nState = PRINT_STATE_PRINTING; // Deliberate: stays so when the start fails.
    if (nullptr == m_pUart) {
        return 1;
    }
    {
        MutexGuard guard(m_mtxFile);
        closeFile(); // a job that was still open when its successor came
        m_pFile = fopen(JOB_FILE, "re");
        if (nullptr == m_pFile) {
            puts("open gcode failed!");
            return 1;
        }
        struct stat status
        {
        };
        if (0 == stat(JOB_FILE, &status)) {
            m_nFileSize = static_cast<int32_t>(status.st_size);
        }
        m_nFilePos = 0; // before the thread runs, which moves it on
    }
    startThread();
    return 0;
}

int PrintService::pausePrint()
{
    stopThread();
    (void)printSingleCmd(LASER_OFF); // paused all the same
    m_nState = PRINT_STATE_PAUSED;
    return 0;
}

int PrintService::stopPrint()
{
    stopThread();
    m_nState = PRINT_STATE_STOPPED;
    m_nFilePos = 0;
    (void)printSingleCmd(LASER_OFF); // stopped all the same
    MutexGuard guard(m_mtxFile);
    closeFile();
    return 0;
}

int PrintService::getProgress(float* pProgress)
{
    *pProgress =
        static_cast<float>(static_cast<double>(m_nFilePos) / static_cast<double>(m_nFileSize));
    printf("persent %f\n", static_cast<double>(*pProgress)); // sic
    return 0;
}

void PrintService::startThread()
{
    STOP_WISH_E eWish = STOP_WISH_ASKED;
    if (!m_nStopWish.compare_exchange_strong(eWish, STOP_WISH_NONE) && STOP_WISH_PARKING == eWish) {
        m_thread->stop(); // until it has parked: a start that comes before that would be lost
    }
    m_thread->start();
}

void PrintService::stopThread()
{
    if (static_cast<int32_t>(syscall(SYS_gettid)) == m_thread->getTid()) {
        m_nStopWish = STOP_WISH_ASKED;
    } else {
        m_thread->stop();
    }
}

void PrintService::parkIfAsked()
{
    STOP_WISH_E eAsked = STOP_WISH_ASKED;
    if (m_nStopWish.compare_exchange_strong(eAsked, STOP_WISH_PARKING)) {
        m_thread->stop(); // returns after the next start
        m_nStopWish = STOP_WISH_NONE;
    }
}

int PrintService::printLoop()
{
    const PRINT_STATE_E eState = m_nState;
    if (PRINT_STATE_PRINTING != eState && PRINT_STATE_PAUSED != eState) {
        pollStatus();
        sleepFor(IDLE_SLEEP); // a dead line answers at once
    } else {
        char acLine[LINE_SIZE] = {0};
        if (!readLine(acLine, LINE_SIZE)) {
            sleepFor(IDLE_SLEEP); // a last line without a line end waits here for stopPrint()
        } else {
            // Deliberate: a line keeps its own line end too, and the end of the job is an empty
            // line.
            sendLine(std::string(acLine) + "\n");
            takeReply();
        }
    }
    parkIfAsked();
    return 0;
}

/**
 * The job's next line; behind the last one, once, an empty line: the job is then closed and
 * removed.
 * @return false without a file, or behind a last line without a line end
 */
bool PrintService::readLine(char* pLine, int nSize)
{
    MutexGuard guard(m_mtxFile);
    if (nullptr == m_pFile || 0 != feof(m_pFile)) {
        return false;
    }
    m_nFilePos = static_cast<int32_t>(ftell(m_pFile));
    if (nullptr != fgets(pLine, nSize, m_pFile)) {
        return true;
    }
    closeFile();
    m_nStopWish = STOP_WISH_ASKED; // first: a start that the state lets through takes it back
    m_nState = PRINT_STATE_STOPPED;
    puts("print job finish!");
    remove(JOB_FILE);
    return true;
}

void PrintService::sendLine(const std::string& strLine)
{
    printf("send out:%s", strLine.c_str());
    UART* const pUart = m_pUart;
    const int nLength = static_cast<int>(strLine.length());
    const int nSent = (nullptr == pUart) ? 0 : pUart->send(strLine.data(), nLength, 0);
    if (nSent != nLength) {
        // Named after the loop, which sends the line.
        Log::getInstance().log(SOURCE_NAME, __LINE__, "printLoop", 7,
                               "send: %s total bytes:%d, but send %d bytes\n", strLine.c_str(),
                               nLength, nSent);
        puts("send failed!");
        stopThread(); // Deliberate: the state stays; the job is stuck until stopPrint().
    }
}

void PrintService::seekBack()
{
    MutexGuard guard(m_mtxFile);
    if (nullptr != m_pFile) {
        fseek(m_pFile, m_nFilePos, SEEK_SET);
    }
}

void PrintService::closeFile()
{
    if (nullptr != m_pFile) {
        fclose(m_pFile);
        m_pFile = nullptr;
    }
}

int PrintService::onMoveLaserEvent(Event* pEvent)
{
    const MoveLaserEvent& event = dynamic_cast<MoveLaserEvent&>(*pEvent);
    const double dX = static_cast<double>(event.m_fX);
    const double dY = static_cast<double>(event.m_fY);
    (void)printSingleCmd("$H\n"); // the move is tried whatever becomes of it
    readMoveReply();
    char acCommand[128] = {0}; // the largest float has 39 digits before the point
    // Deliberate: the arm's axes point against the picture's.
    snprintf(acCommand, sizeof(acCommand), "G05 X%.2f Y%.2f F2000 \nM18 S1\n", -dX, -dY);
    (void)printSingleCmd(acCommand); // the result is not asked for
    readMoveReply();
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
    readMoveReply();
    LOG(7, "move Z to (%f)\n", dZ);
    return -1;
}

/** The second answer to a move, which comes when the arm is there. */
void PrintService::readMoveReply()
{
    UART* const pUart = m_pUart;
    if (nullptr != pUart) {
        char acReply[64] = {0};
        (void)pUart->read(acReply, sizeof(acReply), Time(20, 0)); // only waited for
    }
}

int PrintService::updateFirmware(const void* pData, int nLength)
{
    puts("Now in the update firmware function");
    if (nullptr == m_pUart) {
        return 1;
    }
    remove(RECEIVED_IMAGE);
    FILE* const pFile = fopen(RECEIVED_IMAGE, "w+e");
    if (nullptr != pFile) {
        fwrite(pData, 1, (nLength > 0) ? static_cast<size_t>(nLength) : 0, pFile);
        fclose(pFile);
    }
    puts("receive firmware successed!"); // sic
    puts("start update");
    sendFirmware();
    return 0;
}

void PrintService::sendFirmware()
{
    // Deliberate: not the image that was received, but the one that was put in place.
    FILE* const pFile = fopen(SENT_IMAGE, "rb+e");
    if (nullptr == pFile) {
        puts("open bin failed!");
        return;
    }
    (void)printSingleCmd("M21"); // a controller that does not listen shows in the counts below
    UART* const pUart = m_pUart;
    char acBlock[BLOCK_SIZE] = {0};
    size_t uRead = fread(acBlock, 1, sizeof(acBlock), pFile);
    while (uRead > 0 && nullptr != pUart) {
        const int nSent = pUart->send(acBlock, static_cast<int>(uRead), 0);
        printf("you read %d and has send %d byte to stm32\n", static_cast<int>(uRead), nSent);
        uRead = fread(acBlock, 1, sizeof(acBlock), pFile);
    }
    fclose(pFile);
}

/** For pin files, whose results nobody looks at. */
static void store(int nFd, const char* pText, size_t uLength)
{
    const ssize_t nIgnored = write(nFd, pText, uLength);
    (void)nIgnored;
}

void PrintService::exportResetGpio()
{
    // Deliberate: no result is checked, the line may be exported already; descriptors stay open.
    char acNumber[16] = {0};
    const int nDigits = snprintf(acNumber, sizeof(acNumber), "%u", RESET_GPIO);
    store(open("/sys/class/gpio/export", O_WRONLY | O_CLOEXEC), acNumber,
          static_cast<size_t>(nDigits));
    store(open("/sys/class/gpio/gpio106/direction", O_WRONLY | O_CLOEXEC), "out", 3);
    store(open(GPIO_VALUE, O_WRONLY | O_CLOEXEC), "1", 2); // with its zero byte
    puts("you are reset the STM32");                       // sic
}

int PrintService::resetStm32()
{
    exportResetGpio();
    const int nFd = open(GPIO_VALUE, O_WRONLY | O_CLOEXEC);
    store(nFd, "0", 2); // with its zero byte
    sleepFor(Time(0, 500000));
    store(nFd, "1", 2);
    return 0; // Deliberate: the descriptor stays open.
}
