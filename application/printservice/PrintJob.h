// A G-code job: kept, started, sent line by line, paused and stopped.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "JobFile.h"
#include "Mutex.h"

class PrintLink;
class SelfStoppingThread;

enum PRINT_STATE_E : int32_t
{
    PRINT_STATE_IDLE = 0,       // after construction
    PRINT_STATE_STOPPED = 1,    // job finished or given up
    PRINT_STATE_FILE_READY = 3, // a job file has come and waits
    PRINT_STATE_PRINTING = 5,   // job lines go out
    PRINT_STATE_PAUSED = 6      // by the operator or by the controller
};

/**
 * The job file, the state of the print service, and the walk of one line: read, sent, answered,
 * and sent again when the answer is no acknowledgement.
 *
 * The print service gives out save(), start(), pause(), stop() and getProgress() under names of its
 * own and says there what each promises. Any thread.
 */
class PrintJob
{
public:
    /** Borrows both for good; the thread has to call sendNextLine() while isUnderWay(). */
    PrintJob(PrintLink& link, SelfStoppingThread& thread) : m_link(link), m_thread(thread) {}
    PrintJob(const PrintJob&) = delete;
    PrintJob& operator=(const PrintJob&) = delete;

    /** See PrintService::saveGcode(). */
    void save(const void* pData, int nLength);

    /** See PrintService::startPrint(). @return false for a refusal */
    bool start();

    /** See PrintService::pausePrint(). */
    void pause();

    /** See PrintService::stopPrint(). */
    void stop();

    /** See PrintService::getProgress(). */
    float getProgress() const;

    PRINT_STATE_E getState() const
    {
        return m_nState;
    }

    /** Whether the state is printing or paused. */
    bool isUnderWay() const;

    /** Whether there is a job file. */
    bool hasFile() const;

    /**
     * For the thread's body: send one line and take its reply, 10 s at most. A line that was not
     * acknowledged, and any line while paused, is sent again by the next call, half a second later.
     * After the last line an empty one goes out, and the thread is asked to stop.
     */
    void sendNextLine();

private:
    bool replaceFile(const void* pData, int nLength);
    void switchLaserOff();
    void sendLine(const std::string& strLine);
    void takeReply(bool bAfterEnd);
    void followStatus(int nCode);

    PrintLink& m_link;
    SelfStoppingThread& m_thread;
    // One start or upload at a time: a start opens the job that the state speaks of. Outside the
    // job file's lock; the thread is not waited for with it.
    Mutex m_mtxStart{MUTEX_TYPE_NORMAL};
    JobFile m_jobFile;
    std::atomic<PRINT_STATE_E> m_nState{PRINT_STATE_IDLE};
};
