// The rotating log file: one of the sinks of the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Event.h"
#include "File.h"
#include "Mutex.h"
#include "RetE.h"
#include "ThreadAnnotations.h"

/**
 * Appends every published log line, and keeps a fixed number of files of a bounded size.
 *
 * Each file is named base path + "." + the local time of its creation, "YYYY-MM-DD_HH:MM:SS". It is
 * followed by a new one once it has reached the limit; while that would get the same name, lines go
 * on into it. Any thread may log: lines are written whole, one after the other.
 *
 * Never logs itself, so that the log may construct it. What can't be written (a full disk, no
 * memory for a new file) is lost; while no file can be created, one is tried with the first line of
 * every second.
 */
class LogFile
{
public:
    static LogFile& getInstance();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;
    virtual ~LogFile();

    /**
     * Start the first file and take every log line from now on. Called again it continues with the
     * new settings. Main thread.
     * @param u32LimitKiB  size from which on a new file is started
     * @param s32Files     files kept, the current one included: with each new file, of all regular
     *                     files whose names begin with the base path, whatever bytes follow, only
     *                     the newest by modification time stay (of one time: by name)
     * @return RET_FAILED, unlogged, for an empty path or when the file can't be created
     * @throws std::bad_alloc  without memory; no line is taken then
     */
    RET_E init(const std::string& strBasePath, uint32_t u32LimitKiB, int32_t s32Files);

    /** Close the current file; later lines are dropped. Any thread. */
    void close();

    /** Takes a LogEvent, on the thread that logs. @return 0 */
    int onLog(Event* pEvent);

private:
    LogFile();

    std::string stampedName() const REQUIRES(m_mtx);
    RET_E openNew() REQUIRES(m_mtx);
    void removeOld() REQUIRES(m_mtx);
    void append(const char* pText, size_t uLength) REQUIRES(m_mtx);

    Mutex m_mtx{MUTEX_TYPE_NORMAL}; // innermost; never held while logging
    File m_file GUARDED_BY(m_mtx);
    std::string m_strBasePath GUARDED_BY(m_mtx);
    uint32_t m_u32LimitKiB GUARDED_BY(m_mtx) = 4096;
    int32_t m_s32Files GUARDED_BY(m_mtx) = 1;
    bool m_bUp GUARDED_BY(m_mtx) = false; // between init and close
};
