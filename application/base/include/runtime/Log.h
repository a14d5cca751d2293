// The logging front end: levels, line layout, console output, and the event for the other sinks.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>

/**
 * Log a line from a .cpp that defines SOURCE_NAME, the source name that the line carries.
 * The message brings its own line end. The arguments of a line above the maximum level are not
 * evaluated.
 */
#define LOG(level, ...) LOG_AS(__func__, level, __VA_ARGS__)

/** The same for a line that carries another function's name. */
#define LOG_AS(function, level, ...)                                                               \
    (Log::isWritten(level)                                                                         \
         ? Log::getInstance().log(SOURCE_NAME, __LINE__, function, level, __VA_ARGS__)             \
         : static_cast<void>(0))

/** Fields in front of the message, in this order (a mask). */
enum LOG_LAYOUT_E : uint32_t
{
    LOG_LAYOUT_LEVEL = 1,
    LOG_LAYOUT_DATE = 2,
    LOG_LAYOUT_TIME = 4,
    LOG_LAYOUT_FILE = 8,
    LOG_LAYOUT_LINE = 16,
    LOG_LAYOUT_FUNCTION = 32,
    LOG_LAYOUT_THREAD = 64
};

/** Where lines go (a mask). */
enum LOG_SINK_E : uint32_t
{
    LOG_SINK_CONSOLE = 1,
    LOG_SINK_FILE = 2,
    LOG_SINK_SERVER = 4
};

/**
 * Builds each line in a buffer of its own and hands it to the console and, as a LogEvent, to
 * the subscribers. Any thread may log; the front end takes no lock. Sinks run on the logging
 * thread; a sink that logs is left out of the delivery of its own lines.
 *
 * Levels: 1 fatal, 2 error, 3 alert, 4 crit, 5 warn, 6 notice, 7 debug, 8 info. Deliberate: debug
 * ranks above info, so that a maximum of 7 drops info lines but keeps debug ones.
 *
 * The three settings are meant for start-up; a change reaches the lines that begin after it.
 */
class Log
{
public:
    static Log& getInstance();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;
    /**
     * Closes the log file if the sinks hold it. The log server has gone before: it was made after
     * the log.
     */
    virtual ~Log();

    /** Makes sure that the singleton exists. @return 1 */
    static int ensureInstance();

    /** Lines above this level are dropped; 8 at first. */
    Log& setLevel(uint32_t u32Level);

    /** False for a level whose lines are dropped: most lines are, at the price of this alone. */
    static bool isWritten(uint32_t u32Level)
    {
        return u32Level <= s_u32Level.load(std::memory_order_relaxed);
    }

    /** LOG_LAYOUT_E mask; 127, all fields, at first. */
    Log& setLayout(uint32_t u32Layout);

    /**
     * LOG_SINK_E mask; 1, the console alone, at first. Lines are published whatever it says. On the
     * console the sequence that resets the colour comes after the line's end: where standard
     * output is line-buffered it waits there for the next line.
     */
    Log& setSinks(uint32_t u32Sinks);

    /**
     * Start the log file (see LogFile::init); nothing happens unless the sinks hold the file. A
     * failure is not reported: the service runs without a log file.
     * @param pPath  base path, null for "log"
     */
    void initLogFile(const char* pPath, uint32_t u32LimitKiB, int32_t s32Files);

    /**
     * Start the log server (see LogServer::setUp); nothing happens unless the sinks hold the
     * server. A failure is logged and not reported: the service runs without it.
     * @param pIp  local address, dotted; null for all
     */
    void initLogServer(const char* pIp, int nPort);

    /**
     * Write a line.
     *
     * Prefix and message together keep 4093 bytes; the length counts what the whole message would
     * have had, and the bytes after the cut are zero.
     */
    void log(const char* pFile, int nLine, const char* pFunction, uint32_t u32Level,
             const char* pFormat, ...) __attribute__((format(printf, 6, 7)));

private:
    Log();

    void write(const char* pFile, int nLine, const char* pFunction, uint32_t u32Level,
               const char* pFormat, va_list args) __attribute__((format(printf, 6, 0)));

    // Not within the object: the check needs no instance.
    static inline std::atomic<uint32_t> s_u32Level{8};

    std::atomic<uint32_t> m_u32Layout{127};
    std::atomic<uint32_t> m_u32Sinks{LOG_SINK_CONSOLE};
};
