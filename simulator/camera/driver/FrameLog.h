// What frames the camera produced, for comparison with what arrived elsewhere.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "PictureSource.h"

/**
 * Keeps the latest frames as files "frames/NUMBER.jpg" (or .yuyv; six digits at least) and a line
 * for each frame in "frames.log" below the camera's directory:
 *
 *   NUMBER SEQUENCE BYTES HASH INDEX SECONDS X Y
 *
 * BYTES as the driver reported them; HASH is FNV-1a with 64 bits of the bytes that were really put
 * into the buffer, in hexadecimal; INDEX the buffer, or "dropped" (then no BYTES, HASH, X, Y: "-");
 * SECONDS the buffer's time stamp; X and Y the spot's true pixel position, "-" when it is not in
 * the picture. A frame's file is complete before the frame can be dequeued. No locking: one user.
 */
class FrameLog
{
public:
    /** @param u32Keep  number of files to keep; 0 writes nothing at all */
    FrameLog(const std::string& strDir, uint32_t u32Keep);
    ~FrameLog();
    FrameLog(const FrameLog&) = delete;
    FrameLog& operator=(const FrameLog&) = delete;

    bool isWanted() const;
    void dropped(const PictureRequest& request);
    void produced(const PictureRequest& request, const Picture& picture, uint32_t u32BytesUsed,
                  size_t uPut, int nIndex);

private:
    void append(const std::string& strLine);

    std::string m_strDir;
    uint32_t m_u32Keep;
    int m_nFd = -1;
    std::deque<std::string> m_dequeFile;
};
