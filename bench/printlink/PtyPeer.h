// A controller that answers each line with "ok", on a pseudo terminal, at the least possible cost.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

/**
 * Keep the calling thread, and those that it starts, on one processor; without that many, on any.
 * Where the scheduler puts two threads that wake each other is worth a factor of three.
 */
void stayOnProcessor(int nProcessor);

/**
 * Runs on processor 1: a controller has a processor of its own.
 *
 * Whatever arrives in one read counts as one line. The service and the bare loop, which are
 * compared, get the same peer; it takes the times, too, where both are alike: at the arrival of a
 * line.
 */
class PtyPeer
{
public:
    /** @param nDelayUs  from a line's arrival to its answer, microseconds; 0 answers at once */
    explicit PtyPeer(long nDelayUs);
    PtyPeer(const PtyPeer&) = delete;
    PtyPeer& operator=(const PtyPeer&) = delete;
    /** Nobody else may have the terminal open any more. */
    ~PtyPeer();

    /** The terminal's path, raw as soon as it is there. */
    const std::string& path() const
    {
        return m_strPath;
    }

    /** Count from zero; while nobody sends. */
    void reset();

    /** Lines since reset(). */
    uint32_t lines() const
    {
        return m_u32Lines;
    }

    /** Seconds from the first line's arrival to the last one's; when no more come. */
    double seconds() const;

private:
    void answer();

    const long m_nDelayUs;
    int m_nMaster = -1;
    int m_nSlave = -1; // keeps the terminal alive between its users
    std::string m_strPath;
    std::atomic<uint32_t> m_u32Lines{0};
    int64_t m_s64FirstNs = 0; // of CLOCK_MONOTONIC; told by the count of lines
    int64_t m_s64LastNs = 0;
    std::thread m_thread;
};
