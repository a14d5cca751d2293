// Dialogues with the motion controller, written down as "> $H" and "< ok".
#include "Transcript.h"

#include <array>
#include <sstream>

#include "Time.h"
#include "UART.h"

static const char* const BLOCK_BEGIN = "```transcript";
static const char* const BLOCK_END = "```";

namespace {

/** Text behind a mark and one blank. */
std::string behindMark(const std::string& strLine)
{
    return (strLine.size() > 2) ? strLine.substr(2) : std::string();
}

/** Reads up to a line end; what comes behind it stays in strPending. */
bool readLine(UART& uart, int32_t s32Seconds, std::string& strPending, std::string& strLine)
{
    const Time deadline = monotonicNow() + Time(s32Seconds, 0);
    for (size_t uEnd = strPending.find('\n'); std::string::npos == uEnd;
         uEnd = strPending.find('\n')) {
        const Time now = monotonicNow();
        std::array<char, 65> acPart{};
        if (now > deadline || uart.read(acPart.data(), 64, deadline - now) < 0) {
            strLine = strPending;
            return false;
        }
        strPending += acPart.data();
    }
    const size_t uEnd = strPending.find('\n');
    strLine = strPending.substr(0, uEnd);
    strPending.erase(0, uEnd + 1);
    return true;
}

} // namespace

std::vector<Transcript> Transcript::parse(const std::string& strText)
{
    const bool bBlocks = std::string::npos != strText.find(BLOCK_BEGIN);
    std::vector<Transcript> vecTranscript;
    if (!bBlocks) {
        vecTranscript.emplace_back();
    }
    bool bInside = !bBlocks;
    std::string strHeading;
    std::istringstream stream(strText);
    for (std::string strLine; std::getline(stream, strLine);) {
        if (bBlocks && !bInside && 0 == strLine.compare(0, 1, "#")) {
            strHeading = strLine.substr(strLine.find_first_not_of("# "));
        } else if (bBlocks && strLine == BLOCK_BEGIN) {
            bInside = true;
            vecTranscript.emplace_back();
            vecTranscript.back().m_strName = strHeading;
        } else if (bBlocks && strLine == BLOCK_END) {
            bInside = false;
        } else if (bInside && !strLine.empty() && ('>' == strLine[0] || '<' == strLine[0])) {
            vecTranscript.back().add('>' == strLine[0], behindMark(strLine));
        }
    }
    return vecTranscript;
}

std::string Transcript::toText() const
{
    std::string strText;
    for (const Step& step : m_vecStep) {
        strText += step.bSent ? ">" : "<";
        strText += step.strText.empty() ? "\n" : " " + step.strText + "\n";
    }
    return strText;
}

bool Transcript::play(UART& uart, int32_t s32Seconds, std::string& strTrouble) const
{
    std::string strPending;
    for (const Step& step : m_vecStep) {
        if (step.bSent) {
            const std::string strLine = step.strText + "\n";
            const auto nLength = static_cast<int32_t>(strLine.size());
            if (uart.send(strLine.data(), nLength, 0) != nLength) {
                strTrouble = "not sent: " + step.strText;
                return false;
            }
            continue;
        }
        std::string strLine;
        const bool bWhole = readLine(uart, s32Seconds, strPending, strLine);
        if (!bWhole || strLine != step.strText) {
            strTrouble =
                "expected: " + step.strText + "\n" + (bWhole ? "came: " : "only came: ") + strLine;
            return false;
        }
    }
    return true;
}
