// A copy of a file that nobody can change any more.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

/**
 * The copy is memory that is sealed, or a file without a name where the kernel has no such memory.
 * It is made in steps, so that whoever makes it can serve others meanwhile. One thread.
 */
class FileCopy
{
public:
    static const size_t MAX_SIZE = 32U << 20;
    static const size_t STEP_SIZE = 64U << 10;

    enum STEP_E
    {
        STEP_MORE,
        STEP_DONE,
        STEP_FAILED
    };

    FileCopy();
    FileCopy(const FileCopy&) = delete;
    FileCopy& operator=(const FileCopy&) = delete;
    ~FileCopy();

    /**
     * Begin to copy a regular file, in place of the copy before.
     * @param nFd  taken over in any case
     * @param strError  what is wrong: not a regular file, empty, over MAX_SIZE, or a failed call
     */
    bool begin(int nFd, std::string& strError);

    /** Copy STEP_SIZE bytes at most; only behind begin(). Blocks for the file. */
    STEP_E step(std::string& strError);

    /** Between begin() and the last step(). */
    bool isUnderWay() const
    {
        return nullptr != m_pWork;
    }

    /** Give the memory back; size and sum stay. */
    void release();

    /** Null unless a copy was made and not released. */
    const char* getText() const
    {
        return m_pText;
    }
    size_t getSize() const
    {
        return m_uSize;
    }
    /** SHA-256 of the copy, in hexadecimal digits; empty before the first. */
    const std::string& getSum() const
    {
        return m_strSum;
    }

private:
    struct Work;

    STEP_E fail(std::string& strError, const std::string& strText);
    STEP_E finish(std::string& strError);

    std::unique_ptr<Work> m_pWork; // of the copy that is being made
    const char* m_pText = nullptr;
    size_t m_uSize = 0;
    std::string m_strSum;
};
