// Fuzzes the reply path of the print link: any bytes as the controller's replies to a running job.
//
// An input is a row of replies, parted by '|'. A job runs from the start; each reply is what can be
// read while the service sends one line of it. A piece that begins with '>' and a letter is the
// operator's doing instead, with the rest as what can be read meanwhile:
//   r run, p pause, x stop, s send a job, t one whose last line has no end, d delete its file,
//   i look without a job, e act on an error code (the byte that follows), m move, z change the
//   height, u take the port away, c give it back; and the port's faults: h the next read fails,
//   w the next write does
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FuzzPort.h"
#include "Log.h"
#include "MeasureEvent.h"
#include "MoveLaserEvent.h"
#include "PrintService.h"
#include "ReplyCodec.h"
#include "UART.h"

namespace {

const char* const FOLDER = "/tmp/print-link"; // where the service's files are kept

// Lines that differ, one of them longer than the service's buffer; not too many, so that an input
// reaches the end.
const std::string JOB = "G21\nG1 X1 F6000\n(" + std::string(300, 'c') + ")\nG1 X2\n\nM5\n";
const std::string JOB_WITHOUT_END = "G90\nG1 X3";

const int MOST_PIECES = 200; // keeps a run short

UART g_uart;
PrintService* g_pService; // never deleted: the destructor would wait for a thread
int g_nFormerFolder = -1;

void require(bool bHolds, const char* pWhat)
{
    if (!bHolds) {
        fprintf(stderr, "not true: %s\n", pWhat);
        abort();
    }
}

/** A job must not lose a line nor send one twice but where its reply asks for it. */
class Follower
{
public:
    explicit Follower(const std::string& strJob) : m_strSaved(strJob) {}

    /** A new file waits; it has ended the job that was open. */
    void onSaved(const std::string& strJob)
    {
        m_strSaved = strJob;
        onEnded();
    }

    void onEnded()
    {
        m_bKnown = false;
        m_bOpen = false;
    }

    void onStarted()
    {
        m_strJob = m_strSaved;
        m_uNext = 0;
        m_bKnown = true;
        m_bOpen = true;
    }

    bool isOpen() const
    {
        return m_bOpen;
    }

    /** It is not known any more where the job stands. */
    void lose()
    {
        m_bKnown = false;
    }

    void onLine(const std::string& strLine, bool bTaken)
    {
        if (!m_bKnown) {
            return;
        }
        require(0 == m_strJob.compare(m_uNext, strLine.size(), strLine), "the line that is due");
        require(strLine.empty() == (m_uNext == m_strJob.size()), "an empty line at the end alone");
        float fProgress = 0;
        require(0 == g_pService->getProgress(&fProgress), "the progress");
        require(fProgress == static_cast<float>(static_cast<double>(m_uNext) /
                                                static_cast<double>(m_strJob.size())),
                "the progress of the line under way");
        m_uNext += bTaken ? strLine.size() : 0;
        m_bKnown = !strLine.empty();
    }

private:
    std::string m_strSaved; // in the file
    std::string m_strJob;   // that runs
    size_t m_uNext = 0;     // in m_strJob
    bool m_bKnown = false;  // where the job stands
    bool m_bOpen = false;   // a job was started and has not ended
};

void save(Follower& follower, const std::string& strJob)
{
    require(0 == g_pService->saveGcode(strJob.data(), static_cast<int>(strJob.size())), "saved");
    require(PRINT_STATE_FILE_READY == g_pService->getState(), "a job waits");
    float fProgress = 1;
    require(0 == g_pService->getProgress(&fProgress) && 0 == fProgress, "its progress");
    follower.onSaved(strJob);
}

void start(Follower& follower)
{
    const bool bGoesOn = PRINT_STATE_PAUSED == g_pService->getState() && follower.isOpen();
    if (0 == g_pService->startPrint() && !bGoesOn) {
        follower.onStarted();
    }
}

bool isJobState(PRINT_STATE_E eState)
{
    return PRINT_STATE_PRINTING == eState || PRINT_STATE_PAUSED == eState;
}

/** One call of the thread's body. */
void step(Follower& follower)
{
    const bool bJob = isJobState(g_pService->getState());
    g_port.beginStep();
    g_port.bOnThread = true;
    require(0 == g_pService->printLoop(), "the thread goes on");
    g_port.bOnThread = false;

    const PRINT_STATE_E eNow = g_pService->getState();
    if (!bJob) {
        if (PRINT_STATE_PRINTING == eNow) { // the button at the panel
            follower.onStarted();
        }
    } else if (g_port.strFirstSent.empty()) {
        follower.lose(); // no line was left, or it did not go out
    } else {
        const std::string strLine = g_port.strFirstSent.substr(0, g_port.strFirstSent.size() - 1);
        follower.onLine(strLine, PRINT_STATE_PAUSED != eNow &&
                                     ReplyCodec::isAck(g_port.strFirstRead.c_str()));
    }
    if (bJob && !isJobState(eNow)) {
        require(PRINT_STATE_STOPPED == eNow, "a job ends stopped");
        follower.onEnded();
    }
}

void operate(Follower& follower, char cAct)
{
    switch (cAct) {
    case 'r':
        start(follower);
        break;
    case 'p':
        require(0 == g_pService->pausePrint(), "paused");
        break;
    case 'x':
        require(0 == g_pService->stopPrint(), "stopped");
        follower.onEnded();
        break;
    case 's':
        save(follower, JOB);
        break;
    case 't':
        save(follower, JOB_WITHOUT_END);
        break;
    case 'i': {
        const bool bJob = isJobState(g_pService->getState());
        g_pService->pollStatus();
        if (!bJob && PRINT_STATE_PRINTING == g_pService->getState()) {
            follower.onStarted();
        }
        follower.lose();
        break;
    }
    case 'e':
        g_pService->onErrorCode(g_port.strPending.empty() ? 0 : g_port.strPending[0]);
        break;
    case 'm': {
        MoveLaserEvent event(12.5F, -3);
        require(-1 == g_pService->onMoveLaserEvent(&event), "moved");
        break;
    }
    case 'z': {
        MeasureEvent event(0.25F);
        require(-1 == g_pService->onMeasureEvent(&event), "moved");
        break;
    }
    case 'd':
        (void)remove("tmp.gcode"); // perhaps there is none
        break;
    case 'u':
        g_pService->setUart(nullptr);
        break;
    case 'c':
        g_pService->setUart(&g_uart);
        break;
    case 'h':
        g_port.bReadFails = true;
        break;
    case 'w':
        g_port.bWriteFails = true;
        break;
    default:
        break;
    }
}

class OwnPrintService : public PrintService
{
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    g_nFormerFolder = open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (0 != mkdir(FOLDER, 0700) || g_nFormerFolder < 0 ||
        nullptr == freopen("/dev/null", "w", stdout)) {
        perror("run this in tests/support/private-host");
        exit(1);
    }
    Log::getInstance().setSinks(0);
    (void)g_uart.open("/dev/null"); // refuses the raw mode, and stays open
    g_port.nFd = g_uart.getFd();
    g_port.bNoThread = true;
    g_pService = new OwnPrintService;
    g_port.bNoThread = false;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t uSize)
{
    // The service's files stand in the working folder, the fuzzer's own perhaps in the former one.
    require(0 == chdir(FOLDER), "the folder");
    g_pService->setUart(&g_uart);
    Follower follower(JOB);
    save(follower, JOB);
    start(follower);

    const std::string strInput(reinterpret_cast<const char*>(pData), uSize);
    require(ReplyCodec::isAck(strInput + "\nok\n"), "an acknowledgement is found behind anything");
    size_t uStart = 0;
    for (int i = 0; i < MOST_PIECES && uStart < strInput.size(); ++i) {
        const size_t uEnd = std::min(strInput.find('|', uStart), strInput.size());
        const bool bAct = '>' == strInput[uStart] && uEnd - uStart > 1;
        g_port.strPending +=
            strInput.substr(uStart + (bAct ? 2 : 0), uEnd - uStart - (bAct ? 2 : 0));
        if (bAct) {
            operate(follower, strInput[uStart + 1]);
        } else {
            step(follower);
        }
        uStart = uEnd + 1;
    }

    g_port.calm();
    require(0 == g_pService->stopPrint(), "stopped");
    require(PRINT_STATE_STOPPED == g_pService->getState(), "stopped is the state");
    float fProgress = 1;
    require(0 == g_pService->getProgress(&fProgress) && 0 == fProgress, "no progress");
    require(0 == fchdir(g_nFormerFolder), "the former folder");
    return 0;
}
