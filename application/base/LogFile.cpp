// The rotating log file: one of the sinks of the log.
#include "LogFile.h"

#include <cstdio>
#include <ctime>
#include <sys/stat.h>

#include "Command.h"
#include "EventBus.h"
#include "LogEvent.h"
#include "Time.h"

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
        return RET_SUCCESS; // opened anew it would lose its lines
    }
    m_file.close();
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
    timespec aTime[2] = {};
    clock_gettime(CLOCK_REALTIME, &aTime[0]);
    aTime[1] = aTime[0];
    (void)futimens(fileno(m_file.getStream()), aTime); // at worst a tie

    std::string strCommand(m_strBasePath.size() + 512, '\0'); // cut off it would do something else
    snprintf(&strCommand[0], strCommand.size(),
             "ls -t %s* | awk '{if(NR>%d){print \"rm -f \"$0}}' | sh", m_strBasePath.c_str(),
             m_s32Files);
    (void)runCommand(strCommand.c_str()); // files too many do no harm
}

int LogFile::onLog(Event* pEvent)
{
    const auto& event = dynamic_cast<LogEvent&>(*pEvent);
    const SafePointer_C<char> text(event.m_text);

    MutexGuard guard(m_mtx);
    if (!m_bUp) {
        return 0;
    }
    if (nullptr == m_file.getStream() && stampedName() != m_file.getPath()) {
        (void)openNew(); // the last one failed; tried again in the next second
    }
    (void)m_file.write(text.get(), static_cast<size_t>(event.m_s32Length));
    (void)m_file.flush(); // a full disk: nobody to tell
    if (m_file.length() >= static_cast<int64_t>(m_u32LimitKiB) * 1024) {
        (void)openNew(); // see above
    }
    return 0;
}
