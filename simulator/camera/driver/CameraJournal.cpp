// The record of every device call: one line each, in the order of the answers.
#include "CameraJournal.h"

#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

CameraJournal::CameraJournal(const std::string& strPath, uint32_t u32MaxBytes)
    : m_nFd(::open(strPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0666)),
      m_u32MaxBytes(u32MaxBytes)
{
}

CameraJournal::~CameraJournal()
{
    if (m_nFd >= 0) {
        ::close(m_nFd);
    }
}

void CameraJournal::call(uint32_t u32Pid, uint32_t u32Session, const std::string& strText)
{
    append(u32Pid, u32Session, strText);
}

void CameraJournal::note(const std::string& strText)
{
    append(0, 0, "# " + strText);
}

void CameraJournal::clear()
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    (void)::ftruncate(m_nFd, 0); // a journal that is not there stays empty
    m_u32Bytes = 0;
}

void CameraJournal::append(uint32_t u32Pid, uint32_t u32Session, const std::string& strText)
{
    const std::lock_guard<std::mutex> guard(m_mtx);
    if (m_u32Bytes >= m_u32MaxBytes) {
        (void)::ftruncate(m_nFd, 0); // a journal that is not there stays empty
        m_u32Bytes = 0;
        write(0, 0, "# started over");
    }
    write(u32Pid, u32Session, strText);
}

void CameraJournal::write(uint32_t u32Pid, uint32_t u32Session, const std::string& strText)
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    char acPrefix[64];
    snprintf(acPrefix, sizeof(acPrefix), "%lld.%06ld %u %u ", static_cast<long long>(now.tv_sec),
             static_cast<long>(now.tv_nsec / 1000), u32Pid, u32Session);
    const std::string strLine = acPrefix + strText + "\n";
    // A line that does not fit the disk is lost; the camera goes on.
    if (::write(m_nFd, strLine.data(), strLine.size()) > 0) {
        m_u32Bytes += static_cast<uint32_t>(strLine.size());
    }
}
