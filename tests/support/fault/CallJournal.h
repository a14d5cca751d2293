// Notes chosen library calls of a test program, or of a whole service, with their arguments.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
#include <algorithm>
#include <string>
#include <vector>

extern "C" {
#endif

/**
 * What a wait was asked for, and in which order calls were made, compared exactly and without a
 * clock:
 *
 *   CallJournal journal("poll select");
 *   ... the thread named "rtsp_client" works ...
 *   EXPECT_EQ((std::vector<std::string>{"poll 1000", "select 0.020000"}),
 *             journal.lines("rtsp_client"));
 *
 * The calls are those that a plan of Fault.h can make fail, but for the allocations; a call is
 * noted before it is made, also when a plan makes it fail. A line is the call's name and its
 * arguments:
 *
 *   poll TIMEOUT                  milliseconds
 *   epoll_wait MAXEVENTS TIMEOUT  milliseconds
 *   select SECONDS.MICROSECONDS   without descriptors, a mere sleep; "select -" without end
 *   select fd SECONDS.MICRO...    waits for descriptors; "select fd -" without end
 *   nanosleep, clock_nanosleep    SECONDS.NANOSECONDS; of the second also "until" for a moment
 *   usleep MICROSECONDS, sleep SECONDS
 *   epoll_ctl add|mod|del FD MASK hexadecimal, "0x80000001"; nothing for del
 *   setsockopt FD LEVEL NAME, listen FD BACKLOG, shutdown FD HOW
 *   send|recv|read|write FD BYTES
 *   kill PID SIGNAL, signal SIGNAL
 *   pthread_create joinable|detached
 *   pthread_mutex_lock            std::mutex as well; a line behind which nothing follows is a wait
 *   the others                    the descriptor or the path that Fault.h filters them by
 *
 * Calls that the C library makes of its own are not noted: std::this_thread::sleep_for is
 * nanosleep or clock_nanosleep, whichever the C++ library uses.
 *
 * Linked into a test (target kestrel_fault) one CallJournal exists at a time and holds 8,192 lines;
 * a line more is the text "journal full", so that no comparison passes by want of room. Preloaded
 * into a program (target kestrel_fault_preload) the lines go to a file, "THREAD|LINE" each, from
 * the program's start on:
 *
 *   KESTREL_FAULT_JOURNAL        the file, appended to
 *   KESTREL_FAULT_JOURNAL_CALLS  the calls
 *
 * KESTREL_FAULT_PROGRAM and KESTREL_FAULT_EXCEPT of Fault.h hold for it as well; a plan is not
 * needed.
 */

/** Empty the journal and note these calls from now on: names parted by blanks; "" or null: none. */
void journalStart(const char* pCalls);

/** Lines so far, any thread. */
size_t journalCount(void);

/** @return the line; its life is that of the journal. "" beyond the last */
const char* journalLine(size_t uIndex);

/** @return the thread that made the line's call: the first by its program, others by PR_SET_NAME */
const char* journalThread(size_t uIndex);

#ifdef __cplusplus
}

/** The journal for a scope. Any thread may read it while others add to it. */
class CallJournal
{
public:
    /** @param pCalls  names parted by blanks */
    explicit CallJournal(const char* pCalls) : m_strCalls(pCalls)
    {
        journalStart(pCalls);
    }
    CallJournal(const CallJournal&) = delete;
    CallJournal& operator=(const CallJournal&) = delete;
    ~CallJournal()
    {
        journalStart(nullptr);
    }

    /** Forget the lines so far. While no other thread makes such calls. */
    void clear()
    {
        journalStart(m_strCalls.c_str());
    }

    /** The lines in the order of the calls, of every thread. */
    static std::vector<std::string> lines()
    {
        std::vector<std::string> vecLine;
        const size_t uCount = journalCount();
        for (size_t i = 0; i < uCount; ++i) {
            vecLine.emplace_back(journalLine(i));
        }
        return vecLine;
    }

    /** Those of the threads of that name. */
    static std::vector<std::string> lines(const std::string& strThread)
    {
        std::vector<std::string> vecLine;
        const size_t uCount = journalCount();
        for (size_t i = 0; i < uCount; ++i) {
            if (strThread == journalThread(i)) {
                vecLine.emplace_back(journalLine(i));
            }
        }
        return vecLine;
    }

    /** How often the line stands there, whichever thread it is of. */
    static size_t count(const std::string& strLine)
    {
        const std::vector<std::string> vecLine = lines();
        return static_cast<size_t>(std::count(vecLine.begin(), vecLine.end(), strLine));
    }

private:
    std::string m_strCalls;
};
#endif
