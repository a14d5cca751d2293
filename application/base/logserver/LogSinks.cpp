// Starts the sinks that the log is told to have. Apart from the log: it is ground for the network,
// and the log server stands on that.
#include <new>

#include "Log.h"
#include "LogFile.h"
#include "LogServer.h"

void Log::initLogFile(const char* pPath, uint32_t u32LimitKiB, int32_t s32Files)
{
    if (0 == (m_u32Sinks & LOG_SINK_FILE)) {
        return;
    }
    // Without a log file the service goes on.
    try {
        (void)LogFile::getInstance().init((nullptr != pPath) ? pPath : "log", u32LimitKiB,
                                          s32Files);
    } catch (const std::bad_alloc&) {
        LogFile::getInstance().close();
    }
}

void Log::initLogServer(const char* pIp, int nPort)
{
    if (0 != (m_u32Sinks & LOG_SINK_SERVER)) {
        (void)LogServer::getInstance().setUp(pIp, nPort); // logged there
    }
}
