// The record of every device call: one line each, in the order of the answers.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

/**
 * Appends lines to a file, each with one write, so that a reader never sees half of one.
 *
 * A call's line is "SECONDS PID SESSION NAME asked = RESULT granted": seconds of CLOCK_MONOTONIC
 * with six decimals, the caller's process, the open camera's number (0 without one). RESULT is 0 or
 * "-1 ENAME". A note is "SECONDS 0 0 # text". At MAX_BYTES the file starts over, with a note. Any
 * thread.
 */
class CameraJournal
{
public:
    static const uint32_t MAX_BYTES = 64 * 1024 * 1024; // five hours of streaming, about

    /** Start an empty file; lines are lost when it cannot be written. */
    explicit CameraJournal(const std::string& strPath, uint32_t u32MaxBytes = MAX_BYTES);
    ~CameraJournal();
    CameraJournal(const CameraJournal&) = delete;
    CameraJournal& operator=(const CameraJournal&) = delete;

    void call(uint32_t u32Pid, uint32_t u32Session, const std::string& strText);
    void note(const std::string& strText);

    /** Forget all lines; the file stays the same one. */
    void clear();

private:
    void append(uint32_t u32Pid, uint32_t u32Session, const std::string& strText);
    void write(uint32_t u32Pid, uint32_t u32Session, const std::string& strText);

    const int m_nFd;
    const uint32_t m_u32MaxBytes;
    std::mutex m_mtx;        // guards all below
    uint32_t m_u32Bytes = 0; // in the file
};
