// Starts the sinks that the log is set to have. Separate from the log, which the network code uses:
// the log server is built on that code.
#include <new>

#include "Log.h"
#include "LogFile.h"
#include "LogServer.h"

void Log::initLogFile(const char* pPath, uint32_t u32LimitKiB, int32_t s32Files)
{
    if (0 == (m_u32Sinks & LOG_SINK_FILE)) {
        return;
    }
    // Without a log file the service still runs.
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
