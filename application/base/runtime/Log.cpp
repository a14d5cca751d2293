// The logging front end: levels, line layout, console output, and the event for the other sinks.
#include "Log.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include <sys/syscall.h>
#include <unistd.h>

#include "EventBus.h"
#include "LogEvent.h"
#include "LogFile.h"
#include "SafePointer.h"

namespace {

const size_t LINE_BUFFER = 4096;
const size_t LINE_CAPACITY = 4094; // with the terminating zero

struct LevelStyle
{
    const char* pName;
    const char* pColour;
};

const LevelStyle LEVELS[] = {
    {"", "\033[m"},
    {"fatal", "\033[0;32;31m"},
    {"error", "\033[0;35m"},
    {"alert", "\033[0;32;31m"},
    {"crit ", "\033[0;32;33m"}, // sic: padded
    {"warn ", "\033[0;32m"},    // sic: padded
    {"notice", "\033[0;32;34m"},
    {"debug", "\033[m"},
    {"info ", "\033[m"}, // sic: padded
};

const LevelStyle& styleOf(uint32_t u32Level)
{
    return LEVELS[(u32Level < sizeof(LEVELS) / sizeof(LEVELS[0])) ? u32Level : 0];
}

bool terminalKnowsColours()
{
    enum : int
    {
        UNKNOWN,
        YES,
        NO
    };
    static std::atomic<int> s_nVerdict{UNKNOWN};
    if (UNKNOWN == s_nVerdict) {
        const char* pTerm = getenv("TERM");
        if (nullptr == pTerm || '\0' == *pTerm) {
            return false; // asked again next time
        }
        int nVerdict = NO;
        for (const char* pKnown :
             {"xterm", "xterm-color", "xterm-256color", "screen", "linux", "cygwin"}) {
            if (0 == strcmp(pTerm, pKnown)) {
                nVerdict = YES;
            }
        }
        s_nVerdict = nVerdict;
    }
    return YES == s_nVerdict;
}

/** A line being built: keeps what fits and counts everything. */
class LineBuilder
{
public:
    explicit LineBuilder(char* pBuffer) : m_pBuffer(pBuffer) {}

    void append(const char* pFormat, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list args;
        va_start(args, pFormat);
        vappend(pFormat, args);
        va_end(args);
    }

    void vappend(const char* pFormat, va_list args) __attribute__((format(printf, 2, 0)))
    {
        const size_t uUsed = (m_uLength < LINE_CAPACITY) ? m_uLength : LINE_CAPACITY;
        const int nAdded = vsnprintf(m_pBuffer + uUsed, LINE_CAPACITY - uUsed, pFormat, args);
        m_uLength += (nAdded > 0) ? static_cast<size_t>(nAdded) : 0;
    }

    size_t length() const
    {
        return m_uLength;
    }

private:
    char* m_pBuffer;
    size_t m_uLength = 0;
};

/** Put a cut line into a block that holds its whole length, zero after the cut. */
char* extendCutLine(char* pLine, size_t& uLength)
{
    char* pWhole = static_cast<char*>(calloc(1, uLength + 1));
    if (nullptr == pWhole) {
        uLength = LINE_CAPACITY - 1;
        return pLine;
    }
    memcpy(pWhole, pLine, LINE_CAPACITY - 1);
    free(pLine);
    return pWhole;
}

void appendPrefix(LineBuilder& line, uint32_t u32Layout, const char* pFile, int nLine,
                  const char* pFunction, uint32_t u32Level)
{
    if (0 != (u32Layout & LOG_LAYOUT_LEVEL)) {
        line.append("[%s] ", styleOf(u32Level).pName);
    }
    if (0 != (u32Layout & (LOG_LAYOUT_DATE | LOG_LAYOUT_TIME))) {
        const time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        line.append("[");
        if (0 != (u32Layout & LOG_LAYOUT_DATE)) {
            line.append("%02d-%02d ", local.tm_mon + 1, local.tm_mday);
        }
        if (0 != (u32Layout & LOG_LAYOUT_TIME)) {
            line.append("%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
        }
        line.append("] ");
    }
    if (0 != (u32Layout & (LOG_LAYOUT_FILE | LOG_LAYOUT_LINE))) {
        line.append("[");
        if (0 != (u32Layout & LOG_LAYOUT_FILE)) {
            line.append("%s ", pFile);
        }
        if (0 != (u32Layout & LOG_LAYOUT_LINE)) {
            line.append("+%d", nLine);
        }
        line.append("] ");
    }
    if (0 != (u32Layout & LOG_LAYOUT_FUNCTION)) {
        line.append("[%s] ", pFunction);
    }
    if (0 != (u32Layout & LOG_LAYOUT_THREAD)) {
        line.append("[%d] ", static_cast<int>(syscall(SYS_gettid)));
    }
}

} // namespace

Log::Log()
{
    // Both outlive this singleton; neither logs while it is constructed.
    (void)EventBus<LogEvent>::getInstance();
    (void)LogFile::getInstance();
}

Log::~Log()
{
    if (0 != (m_u32Sinks & LOG_SINK_FILE)) {
        LogFile::getInstance().close();
    }
}

Log& Log::getInstance()
{
    static Log s_instance;
    return s_instance;
}

int Log::ensureInstance()
{
    (void)getInstance();
    return 1;
}

Log& Log::setLevel(uint32_t u32Level)
{
    s_u32Level = u32Level;
    return *this;
}

Log& Log::setLayout(uint32_t u32Layout)
{
    m_u32Layout = u32Layout;
    return *this;
}

Log& Log::setSinks(uint32_t u32Sinks)
{
    m_u32Sinks = u32Sinks;
    return *this;
}

void Log::log(const char* pFile, int nLine, const char* pFunction, uint32_t u32Level,
              const char* pFormat, ...)
{
    if (!isWritten(u32Level)) {
        return;
    }
    va_list args;
    va_start(args, pFormat);
    write(pFile, nLine, pFunction, u32Level, pFormat, args);
    va_end(args);
}

void Log::write(const char* pFile, int nLine, const char* pFunction, uint32_t u32Level,
                const char* pFormat, va_list args)
{
    char* pLine = static_cast<char*>(malloc(LINE_BUFFER));
    size_t uLength = 0;
    if (nullptr != pLine) {
        LineBuilder line(pLine);
        appendPrefix(line, m_u32Layout, pFile, nLine, pFunction, u32Level);
        line.vappend(pFormat, args);
        uLength = line.length();
        if (uLength >= LINE_CAPACITY) {
            pLine = extendCutLine(pLine, uLength);
        } else {
            // Log viewers may keep it for a while.
            char* pShort = static_cast<char*>(realloc(pLine, uLength + 1));
            pLine = (nullptr == pShort) ? pLine : pShort;
        }
    }
    const SafePointer_C<char> text(pLine); // reports a null line on standard output
    if (nullptr == text.get()) {
        return;
    }
    const int nLength = static_cast<int>(uLength);
    if (0 != (m_u32Sinks & LOG_SINK_CONSOLE)) {
        if (terminalKnowsColours()) {
            printf("%s", styleOf(u32Level).pColour);
        }
        printf("%.*s", nLength, text.get());
        printf("\033[m");
    }
    LogEvent event(text, nLength, u32Level);
    EventBus<LogEvent>::publish(event, PUBLISH_SKIP_RUNNING);
}
