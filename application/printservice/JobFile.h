// The G-code job on disk: kept, read line by line, removed at its end.
#pragma once

#include <cstdint>
#include <cstdio>

#include "Mutex.h"

/** What JobFile::nextLine() found. */
enum JOB_LINE_E : int32_t
{
    JOB_LINE_NONE, // no job is open, or its last line had no line end
    JOB_LINE_TEXT, // a line of the job
    JOB_LINE_END   // after the last line, once
};

/**
 * The file "tmp.gcode" of the working directory and the stream that a job reads it through.
 *
 * Any thread; calls wait for each other, that is for the disk.
 */
class JobFile
{
public:
    JobFile() = default;
    JobFile(const JobFile&) = delete;
    JobFile& operator=(const JobFile&) = delete;
    ~JobFile();

    /**
     * Write a new file and let it take the name, so that a job that is open keeps its own.
     * Deliberate: what is written isn't looked at, a full disk cuts the file. When the new file
     * can't be made there is none: the previous job is still removed.
     */
    void save(const void* pData, int nLength);

    /**
     * Take the size of the file that waits, for a progress of 0.
     * @return false when a job is open: its progress stays
     */
    bool measure();

    /** Whether there is a file. */
    bool exists() const;

    /** Whether a job is open: from open() to its end or close(). */
    bool isOpen() const;

    /**
     * Open the file at its start, in place of a job that is still open.
     * @return false without it
     */
    bool open();

    /**
     * The next line with its line end, as far as it fits.
     *
     * At the job's end the stream is closed, and the file removed unless it is another by now.
     * @param pLine  gets the text; untouched at the end
     */
    JOB_LINE_E nextLine(char* pLine, int nSize);

    /** Give out the last line again next. Nothing happens without a job. */
    void seekBack();

    /** Set the progress to 0. */
    void restart();

    /** End the reading; the file stays. */
    void close();

    /** @return the share of the file before the current line, 0 to 1; 0 without a file */
    float getProgress() const;

private:
    void closeStream() REQUIRES(m_mtx);

    mutable Mutex m_mtx{MUTEX_TYPE_NORMAL};    // guards all below, and making and removing the file
    FILE* m_pFile GUARDED_BY(m_mtx) = nullptr; // null when closed
    int32_t m_nFilePos GUARDED_BY(m_mtx) = 0;  // of the line under way, in bytes
    int32_t m_nFileSize GUARDED_BY(m_mtx) = 1; // bytes; 1 so that progress is 0 before any job
};
