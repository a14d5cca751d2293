// A copy of a job's file that nobody can change any more.
#pragma once

#include <cstddef>
#include <string>

/** Owns the copy's memory. Operator's side: allocates and blocks for the file. */
class JobCopy
{
public:
    static const size_t MAX_SIZE = 32U << 20;

    JobCopy() = default;
    JobCopy(const JobCopy&) = delete;
    JobCopy& operator=(const JobCopy&) = delete;
    ~JobCopy();

    /**
     * Copy a regular file, in place of the copy before.
     * @param nFd  stays open
     * @param strError  what is wrong: not a regular file, empty, over 32 MiB, or a failed call
     */
    bool take(int nFd, std::string& strError);

    void clear();

    const char* getText() const
    {
        return m_pText;
    }
    size_t getSize() const
    {
        return m_uSize;
    }
    /** SHA-256 of the copy, in hexadecimal digits. */
    const std::string& getSum() const
    {
        return m_strSum;
    }

private:
    bool fill(int nFd, int nCopy, size_t uSize, std::string& strError);

    const char* m_pText = nullptr;
    size_t m_uSize = 0;
    std::string m_strSum;
};
