// Takes a firmware image in raw blocks and keeps it in a file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

/**
 * An image that begins with "KFW1" and a little-endian length of 32 bits ends with that many
 * further bytes. Any other image ends when the wire has been quiet for a while, and so does one
 * that falls short of its length.
 */
class FirmwareLoader
{
public:
    /**
     * @param strPath     where the image goes, replaced by each new one; empty keeps none
     * @param s64QuietUs  how long the wire has to be quiet
     */
    FirmwareLoader(std::string strPath, int64_t s64QuietUs);
    FirmwareLoader(const FirmwareLoader&) = delete;
    FirmwareLoader& operator=(const FirmwareLoader&) = delete;
    ~FirmwareLoader();

    void begin(int64_t s64NowUs);

    /** Between begin() and the image's end. */
    bool isActive() const
    {
        return m_bActive;
    }

    /** Take bytes. @return how many belong to the image */
    size_t take(const char* pData, size_t uLength, int64_t s64NowUs);

    /** End an image whose wire is quiet. @return true when that has just happened */
    bool endIfQuiet(int64_t s64NowUs);

    /** When endIfQuiet() is worth a call; only while active. */
    int64_t getQuietUs() const
    {
        return m_s64LastUs + m_s64QuietUs;
    }

    void end();

    /** "N bytes", with "complete", "cut" or "raw" for an image without a length. */
    std::string getResult() const;

private:
    uint64_t getExpected() const;

    std::string m_strPath;
    int64_t m_s64QuietUs;
    int64_t m_s64LastUs = 0;
    bool m_bActive = false;
    std::string m_strHead; // the image's first bytes, up to HEAD_SIZE
    uint64_t m_u64Taken = 0;
    FILE* m_pFile = nullptr;
};
