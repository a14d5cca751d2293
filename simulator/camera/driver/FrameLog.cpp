// What frames the camera produced, for comparison with what arrived elsewhere.
#include "FrameLog.h"

#include <cinttypes>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

uint64_t hash(const uint8_t* pBytes, size_t uBytes)
{
    uint64_t u64Hash = 0xcbf29ce484222325ull; // offset basis and prime of FNV-1a, 64 bits
    for (size_t i = 0; i < uBytes; ++i) {
        u64Hash = (u64Hash ^ pBytes[i]) * 0x100000001b3ull;
    }
    return u64Hash;
}

bool writeFile(const std::string& strPath, const uint8_t* pBytes, size_t uBytes)
{
    const int nFd = ::open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (nFd < 0) {
        return false;
    }
    const bool bDone = static_cast<ssize_t>(uBytes) == ::write(nFd, pBytes, uBytes);
    ::close(nFd);
    return bDone;
}

} // namespace

FrameLog::FrameLog(const std::string& strDir, uint32_t u32Keep)
    : m_strDir(strDir + "/frames"), m_u32Keep(u32Keep)
{
    if (isWanted()) {
        ::mkdir(m_strDir.c_str(), 0777);
        m_nFd = ::open((strDir + "/frames.log").c_str(),
                       O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666);
    }
}

FrameLog::~FrameLog()
{
    if (m_nFd >= 0) {
        ::close(m_nFd);
    }
}

bool FrameLog::isWanted() const
{
    return m_u32Keep > 0;
}

void FrameLog::append(const std::string& strLine)
{
    if (m_nFd >= 0 && ::write(m_nFd, strLine.data(), strLine.size()) < 0) {
        perror("frames.log");
    }
}

void FrameLog::dropped(const PictureRequest& request)
{
    if (!isWanted()) {
        return;
    }
    char acLine[128];
    snprintf(acLine, sizeof(acLine), "%u %u - - dropped %" PRId64 ".%06" PRId64 " - -\n",
             request.u32Number, request.u32Sequence, request.s64Microseconds / 1000000,
             request.s64Microseconds % 1000000);
    append(acLine);
}

void FrameLog::produced(const PictureRequest& request, const Picture& picture,
                        uint32_t u32BytesUsed, size_t uPut, int nIndex)
{
    if (!isWanted()) {
        return;
    }
    char acName[64];
    snprintf(acName, sizeof(acName), "/%06u.%s", request.u32Number,
             V4L2_PIX_FMT_MJPEG == request.choice.u32PixelFormat ? "jpg" : "yuyv");
    const std::string strPath = m_strDir + acName;
    if (!writeFile(strPath, picture.vecByte.data(), uPut)) {
        perror(strPath.c_str());
    }
    m_dequeFile.push_back(strPath);
    if (m_dequeFile.size() > m_u32Keep) {
        ::unlink(m_dequeFile.front().c_str());
        m_dequeFile.pop_front();
    }

    char acSpot[64] = "- -";
    if (picture.truth.bInPicture) {
        snprintf(acSpot, sizeof(acSpot), "%.3f %.3f", picture.truth.dX, picture.truth.dY);
    }
    char acLine[256];
    snprintf(acLine, sizeof(acLine), "%u %u %u %016" PRIx64 " %d %" PRId64 ".%06" PRId64 " %s\n",
             request.u32Number, request.u32Sequence, u32BytesUsed,
             hash(picture.vecByte.data(), uPut), nIndex, request.s64Microseconds / 1000000,
             request.s64Microseconds % 1000000, acSpot);
    append(acLine);
}
