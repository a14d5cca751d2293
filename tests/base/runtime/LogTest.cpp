// Log lines: levels, layout, console and colours, cutting, and the event that every line becomes.
#include "Log.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "AllocatedBytes.h"
#include "EventBus.h"
#include "Fault.h"
#include "LogCapture.h"
#include "LogEvent.h"
#include "LogLine.h"
#include "Pattern.h"

static bool g_bReallocMoves = false;

// The linker gives the program's calls to the second.
extern "C" void* __real_realloc(void* pBlock, size_t uSize);

extern "C" void* __wrap_realloc(void* pBlock, size_t uSize)
{
    if (!g_bReallocMoves) {
        return __real_realloc(pBlock, uSize);
    }
    void* const pMoved = malloc(uSize);
    memcpy(pMoved, pBlock, uSize); // these become smaller
    memset(pBlock, '?', uSize);
    free(pBlock);
    return pMoved;
}

namespace {

const uint32_t SERVICE_LAYOUT = 71; // level, date, time, thread

std::string tid()
{
    return std::to_string(syscall(SYS_gettid));
}

/** The line as the sinks got it. */
std::string lineWith(uint32_t u32Layout, uint32_t u32Level, const char* pText)
{
    LogCapture log(u32Layout);
    LOG_LINE(u32Level, "%s", pText);
    return log.text();
}

std::string nameOf(uint32_t u32Level)
{
    return lineWith(LOG_LAYOUT_LEVEL, u32Level, "");
}

} // namespace

TEST(Log, FlagsAndLevelsHaveTheirNumbers)
{
    EXPECT_EQ(127, LOG_LAYOUT_LEVEL + LOG_LAYOUT_DATE + LOG_LAYOUT_TIME + LOG_LAYOUT_FILE +
                       LOG_LAYOUT_LINE + LOG_LAYOUT_FUNCTION + LOG_LAYOUT_THREAD);
    EXPECT_EQ(71, LOG_LAYOUT_LEVEL + LOG_LAYOUT_DATE + LOG_LAYOUT_TIME + LOG_LAYOUT_THREAD);
    EXPECT_EQ(1, LOG_SINK_CONSOLE);
    EXPECT_EQ(2, LOG_SINK_FILE);
    EXPECT_EQ(4, LOG_SINK_SERVER);
    EXPECT_EQ(1, Log::ensureInstance());
}

TEST(Log, ServiceLayoutHasLevelDateTimeAndThread)
{
    EXPECT_TRUE(hasPattern(lineWith(SERVICE_LAYOUT, 2, "fgets err\n"),
                           "^\\[error\\] \\[[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]"
                           "\\] \\[" +
                               tid() + "\\] fgets err\n$"));
}

TEST(Log, DateAndTimeAreTheLocalOnesOfTheCall)
{
    const auto now = [] {
        const time_t seconds = time(nullptr);
        tm local{};
        localtime_r(&seconds, &local);
        char acText[40];
        strftime(acText, sizeof(acText), "[%m-%d %H:%M:%S] text", &local);
        return std::string(acText);
    };
    setenv("TZ", "AWAY-13:45", 1); // never what UTC tells
    tzset();
    std::string strBefore;
    std::string strLine;
    do {
        strBefore = now();
        strLine = lineWith(LOG_LAYOUT_DATE | LOG_LAYOUT_TIME, 2, "text");
    } while (strBefore != now()); // the second has changed
    unsetenv("TZ");
    tzset();

    EXPECT_EQ(strBefore, strLine);
}

TEST(Log, FullLayoutHasAllFieldsInOrder)
{
    EXPECT_TRUE(hasPattern(lineWith(127, 2, "text"),
                           "^\\[error\\] \\[[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\] "
                           "\\[Some.cpp \\+12\\] \\[doIt\\] \\[" +
                               tid() + "\\] text$"));
}

TEST(Log, EachFieldAlone)
{
    EXPECT_EQ("text", lineWith(0, 2, "text"));
    EXPECT_EQ("[error] text", lineWith(LOG_LAYOUT_LEVEL, 2, "text"));
    EXPECT_TRUE(
        hasPattern(lineWith(LOG_LAYOUT_DATE, 2, "text"), "^\\[[0-9]{2}-[0-9]{2} \\] text$"));
    EXPECT_TRUE(hasPattern(lineWith(LOG_LAYOUT_TIME, 2, "text"),
                           "^\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\] text$"));
    EXPECT_EQ("[Some.cpp ] text", lineWith(LOG_LAYOUT_FILE, 2, "text"));
    EXPECT_EQ("[+12] text", lineWith(LOG_LAYOUT_LINE, 2, "text"));
    EXPECT_EQ("[doIt] text", lineWith(LOG_LAYOUT_FUNCTION, 2, "text"));
    EXPECT_EQ("[" + tid() + "] text", lineWith(LOG_LAYOUT_THREAD, 2, "text"));
}

// Padded names, an empty one, and debug above info.
TEST(Log, DeliberateLevelNamesArePaddedAndDebugIsAboveInfo)
{
    EXPECT_EQ("[] ", nameOf(0));
    EXPECT_EQ("[fatal] ", nameOf(1));
    EXPECT_EQ("[error] ", nameOf(2));
    EXPECT_EQ("[alert] ", nameOf(3));
    EXPECT_EQ("[crit ] ", nameOf(4));
    EXPECT_EQ("[warn ] ", nameOf(5));
    EXPECT_EQ("[notice] ", nameOf(6));
    EXPECT_EQ("[debug] ", nameOf(7));
    EXPECT_EQ("[info ] ", nameOf(8));
}

TEST(Log, LevelAboveTheLastHasNoName)
{
    LogCapture log(LOG_LAYOUT_LEVEL);
    Log::getInstance().setLevel(9);

    LOG_LINE(9, "text");

    EXPECT_EQ("[] text", log.text());
}

TEST(Log, LinesAboveTheMaximumLevelAreDropped)
{
    LogCapture log(0);
    Log::getInstance().setLevel(5);

    for (uint32_t u32Level = 0; u32Level <= 8; ++u32Level) {
        LOG_LINE(u32Level, "%u ", u32Level);
    }
    EXPECT_EQ("0 1 2 3 4 5 ", log.text());

    log.clear();
    Log::getInstance().setLevel(7);
    LOG_LINE(7, "debug ");
    LOG_LINE(8, "info ");
    EXPECT_EQ("debug ", log.text());
}

TEST(Log, DroppedLineAllocatesNothing)
{
    LogCapture log(127);
    Log::getInstance().setLevel(5);
    LOG_LINE(5, "first\n");

    const unsigned long ulBefore = faultThreadAllocations();
    LOG_LINE(6, "%s\n", "dropped");
    EXPECT_EQ(ulBefore, faultThreadAllocations());
    LOG_LINE(5, "%s\n", "written");
    EXPECT_LT(ulBefore, faultThreadAllocations());
}

TEST(Log, MacroBringsSourceLineAndFunctionAndHoldsDroppedLinesBack)
{
    static const char* const SOURCE_NAME = "here/LogTest";
    LogCapture log(LOG_LAYOUT_LEVEL | LOG_LAYOUT_FILE | LOG_LAYOUT_LINE | LOG_LAYOUT_FUNCTION);
    Log::getInstance().setLevel(5);
    int nAsked = 0;
    const auto ask = [&nAsked] { return ++nAsked; };

    LOG(6, "%d\n", ask());
    EXPECT_EQ(0, nAsked);
    const int nLine = __LINE__ + 1;
    LOG(5, "%d\n", ask());

    EXPECT_EQ(1, nAsked);
    EXPECT_EQ("[warn ] [here/LogTest +" + std::to_string(nLine) + "] [TestBody] 1\n", log.text());
}

TEST(Log, EventCarriesTextLengthAndLevelWhateverTheSinks)
{
    class Sink
    {
    public:
        int onLog(Event* pEvent)
        {
            const auto& event = dynamic_cast<LogEvent&>(*pEvent);
            m_text = event.m_text; // shared: stays when the call is over
            m_s32Length = event.m_s32Length;
            m_u32Level = event.m_u32Level;
            return 0;
        }
        SafePointer_C<char> m_text;
        int32_t m_s32Length = 0;
        uint32_t m_u32Level = 0;
    };
    Sink sink;
    LogCapture quiet(0);
    EventBus<LogEvent>::subscribe(&sink, &Sink::onLog);

    LOG_LINE(4, "%d apples\n", 3);

    EventBus<LogEvent>::unsubscribe(&sink, &Sink::onLog);
    EXPECT_STREQ("3 apples\n", sink.m_text.get());
    EXPECT_EQ(9, sink.m_s32Length);
    EXPECT_EQ(4u, sink.m_u32Level);
}

TEST(Log, LineMayMoveWhenItsBlockIsMadeSmaller)
{
    const std::string strText(100, 'x');
    g_bReallocMoves = true;

    const std::string strLine = lineWith(0, 2, strText.c_str());

    g_bReallocMoves = false;
    EXPECT_EQ(strText, strLine);
}

TEST(Log, LongestWholeLineHas4093Bytes)
{
    const std::string strText(4093, 'x');

    EXPECT_EQ(strText, lineWith(0, 2, strText.c_str()));
}

TEST(Log, CutLineKeepsItsFullLengthFilledWithZeros)
{
    for (const size_t uLength : {4094u, 4095u, 4096u, 4097u, 5000u, 100000u}) {
        const std::string strText(uLength, 'x');

        const std::string strLine = lineWith(0, 2, strText.c_str());

        EXPECT_EQ(std::string(4093, 'x') + std::string(uLength - 4093, '\0'), strLine) << uLength;
    }
}

TEST(Log, CutLinesPileNothingUp)
{
    LogCapture log(0);
    const std::string strText(5000, 'x');
    LOG_LINE(2, "%s", strText.c_str());
    log.clear();
    const size_t uBefore = allocatedBytes();

    for (int i = 0; i < 100; ++i) {
        LOG_LINE(2, "%s", strText.c_str());
        log.clear();
    }

    EXPECT_GT(uBefore + 100000, allocatedBytes()); // a line alone has 5000
}

TEST(Log, PrefixCountsIntoTheCutLine)
{
    const std::string strText(5000, 'x');

    const std::string strLine = lineWith(LOG_LAYOUT_LEVEL, 2, strText.c_str());

    EXPECT_EQ("[error] " + std::string(4085, 'x') + std::string(915, '\0'), strLine);
}

TEST(Log, CutPrefixLeavesNoRoomButCountsOn)
{
    LogCapture log(LOG_LAYOUT_FILE | LOG_LAYOUT_FUNCTION);
    const std::string strLong(6000, 'f');

    Log::getInstance().log(strLong.c_str(), 1, "function", 2, "%s", "text");

    // "[" + name + " " + "] " + "[function] " + "text"
    EXPECT_EQ("[" + std::string(4092, 'f') + std::string(6019 - 4093, '\0'), log.text());
}

TEST(Log, CutLineWithoutMemoryForItsLengthIsCutForGood)
{
    LogCapture log(0);
    const std::string strText(5000, 'x');
    FaultScope fault("calloc=5001:1:ENOMEM");

    LOG_LINE(2, "%s", strText.c_str());

    EXPECT_EQ(1u, faultHits());
    EXPECT_EQ(std::string(4093, 'x'), log.text());
}

TEST(Log, MessageThatCannotBeFormattedCountsAsEmpty)
{
    const wchar_t aInvalid[] = {0x7fffffff, 0}; // no character: the formatting returns -1
    LogCapture log(LOG_LAYOUT_LEVEL);

    LOG_LINE(2, "%ls", aInvalid);
    LOG_LINE(2, "next\n");

    EXPECT_EQ((std::vector<std::string>{"[error] ", "[error] next\n"}), log.lines());
}

TEST(Log, LineWithoutMemoryIsReportedOnStandardOutputOnly)
{
    LogCapture log(0);
    testing::internal::CaptureStdout();
    {
        FaultScope fault("malloc=4096:1:ENOMEM");
        LOG_LINE(2, "lost\n");
        EXPECT_EQ(1u, faultHits());
    }
    EXPECT_EQ("err: NULL pointer(safe pointer) !\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ("", log.text());
}

TEST(Log, MessageMayHoldNothing)
{
    EXPECT_EQ("", lineWith(0, 2, ""));
}
