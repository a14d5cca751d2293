// The rotating log file: one of the sinks of the log.
#include "LogFile.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "EventBus.h"
#include "LogEvent.h"
#include "Time.h"

namespace {

struct FoundFile
{
    timespec modified;
    std::string strName;
};

bool isListedBefore(const FoundFile& left, const FoundFile& right)
{
    if (left.modified.tv_sec != right.modified.tv_sec) {
        return left.modified.tv_sec > right.modified.tv_sec;
    }
    if (left.modified.tv_nsec != right.modified.tv_nsec) {
        return left.modified.tv_nsec > right.modified.tv_nsec;
    }
    return left.strName < right.strName;
}

/** Links are neither followed nor counted: only what is itself a regular file. */
std::vector<FoundFile> filesThatBeginWith(DIR* pFolder, const char* pPrefix)
{
    const size_t uPrefix = strlen(pPrefix);
    std::vector<FoundFile> vecFound;
    while (const dirent* pEntry = readdir(pFolder)) {
        struct stat info = {};
        if (0 != strncmp(pEntry->d_name, pPrefix, uPrefix) ||
            (0 == uPrefix && '.' == pEntry->d_name[0]) || // hidden from an empty prefix
            0 != fstatat(dirfd(pFolder), pEntry->d_name, &info, AT_SYMLINK_NOFOLLOW) ||
            !S_ISREG(info.st_mode)) {
            continue;
        }
        vecFound.push_back({info.st_mtim, pEntry->d_name});
    }
    return vecFound;
}

/** Newest first by the time of modification, then by name, the order of "ls -t". */
void removeAllButNewest(const char* pFolder, const char* pPrefix, int32_t s32Kept)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(pFolder), closedir);
    if (nullptr == folder) {
        return;
    }
    std::vector<FoundFile> vecFound = filesThatBeginWith(folder.get(), pPrefix);
    std::sort(vecFound.begin(), vecFound.end(), isListedBefore);
    for (size_t i = static_cast<size_t>(std::max(s32Kept, 0)); i < vecFound.size(); ++i) {
        (void)unlinkat(dirfd(folder.get()), vecFound[i].strName.c_str(), 0); // it may be another's
    }
}

} // namespace

LogFile::LogFile()
{
    (void)EventBus<LogEvent>::getInstance(); // the destructor needs it
}

LogFile::~LogFile()
{
    EventBus<LogEvent>::unsubscribe(this, &LogFile::onLog);
}

LogFile& LogFile::getInstance()
{
    static LogFile s_instance;
    return s_instance;
}

RET_E LogFile::init(const std::string& strBasePath, uint32_t u32LimitKiB, int32_t s32Files)
{
    if (strBasePath.empty()) {
        return RET_FAILED;
    }
    {
        MutexGuard guard(m_mtx);
        m_strBasePath = strBasePath;
        m_u32LimitKiB = u32LimitKiB;
        m_s32Files = s32Files;
        if (RET_SUCCESS != openNew()) {
            return RET_FAILED;
        }
        m_bUp = true;
    }
    EventBus<LogEvent>::unsubscribe(this, &LogFile::onLog); // or lines would come twice
    EventBus<LogEvent>::subscribe(this, &LogFile::onLog);
    return RET_SUCCESS;
}

void LogFile::close()
{
    MutexGuard guard(m_mtx);
    m_bUp = false;
    m_file.close();
}

std::string LogFile::stampedName() const
{
    return m_strBasePath + "." + timeStamp(1);
}

RET_E LogFile::openNew()
{
    const std::string strName = stampedName();
    if (nullptr != m_file.getStream() && strName == m_file.getPath()) {
        return RET_SUCCESS; // reopened it would lose its lines
    }
    printf("create log file:%s\n", strName.c_str());
    if (0 !=
        m_file.open(strName.c_str(), FILE_FLAG_WRITE | FILE_FLAG_ACCEPTED | FILE_FLAG_CREATE)) {
        return RET_FAILED;
    }
    removeOld();
    return RET_SUCCESS;
}

void LogFile::removeOld()
{
    // The kernel stamps files in clock ticks: with the exact time the new file is the newest even
    // when its predecessor was written in the same tick.
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const timespec aTime[] = {now, now};
    (void)futimens(fileno(m_file.getStream()), aTime); // at worst a tie

    const size_t uSlash = m_strBasePath.rfind('/');
    const size_t uPrefix = (std::string::npos == uSlash) ? 0 : uSlash + 1;
    try {
        const std::string strFolder = (0 == uPrefix) ? "." : m_strBasePath.substr(0, uPrefix);
        removeAllButNewest(strFolder.c_str(), m_strBasePath.c_str() + uPrefix, m_s32Files);
    } catch (const std::bad_alloc&) {
        // Files too many do no harm; the next new file tries again.
    }
}

int LogFile::onLog(Event* pEvent)
{
    const auto& event = dynamic_cast<LogEvent&>(*pEvent);
    const SafePointer_C<char> text(event.m_text);

    MutexGuard guard(m_mtx);
    if (!m_bUp) {
        return 0;
    }
    try {
        append(text.get(), static_cast<size_t>(event.m_s32Length));
    } catch (const std::bad_alloc&) {
        // No memory for a file's name: tried again with the next line.
    }
    return 0;
}

void LogFile::append(const char* pText, size_t uLength)
{
    if (nullptr == m_file.getStream() && stampedName() != m_file.getPath()) {
        (void)openNew(); // the last one failed; tried again in the next second
    }
    (void)m_file.write(pText, uLength);
    (void)m_file.flush(); // a full disk: nowhere to report it
    if (m_file.length() >= static_cast<int64_t>(m_u32LimitKiB) * 1024) {
        (void)openNew(); // see above
    }
}
