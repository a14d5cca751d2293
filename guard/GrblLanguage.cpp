// The language of Grbl 1.1 in laser mode.
#include "GrblLanguage.h"

#include <algorithm>
#include <cstring>

#include "ReplyText.h"

static const int G_WORDS[] = {0,   10,  20,  30,  40,  170, 200, 210, 540,
                              550, 560, 570, 580, 590, 900, 910, 920, 940};
static const int M_WORDS[] = {20, 30, 40, 50, 70, 80, 90, 300};

namespace {

Reply parseReport(const ReplyText& text)
{
    Reply reply;
    ReplyText field = text.getField(0, '|');
    reply.eKind = REPLY_REPORT;
    if (field.is("Idle")) {
        reply.eRun = RUN_IDLE;
    } else if (field.is("Hold:0")) {
        reply.eRun = RUN_HELD;
    } else if (field.startsWith("Hold:") || field.startsWith("Door:")) {
        reply.eRun = RUN_SLOWING;
    } else if (field.is("Alarm")) {
        reply.eRun = RUN_ALARM;
    } else if (field.is("Run") || field.is("Jog") || field.is("Home") || field.is("Check") ||
               field.is("Sleep")) {
        reply.eRun = RUN_MOVING;
    } else {
        return {};
    }
    bool bSpindleTold = false;
    for (size_t u = 1; !(field = text.getField(u, '|')).isEmpty(); ++u) {
        if (field.startsWith("MPos:")) {
            reply.bPosition = field.behind("MPos:").takePoint(reply.position);
        } else if (field.startsWith("FS:")) {
            double dSpeed = 0;
            bSpindleTold = field.behind("FS:").getField(1, ',').takeNumber(dSpeed);
            reply.bSpindle = reply.bSpindle || dSpeed > 0;
        }
    }
    return bSpindleTold ? reply : Reply{}; // a report that leaves the beam out is of no use
}

/** "[G54:0.000,0.000,0.000]" and "[G92:...]"; what else is in brackets is for people. */
Reply parseMessage(const ReplyText& text)
{
    Reply reply;
    reply.eKind = REPLY_NOTE;
    static const char* const SYSTEMS[] = {"G54:", "G55:", "G56:", "G57:", "G58:", "G59:", "G92:"};
    for (int n = 0; n < 7; ++n) {
        if (text.startsWith(SYSTEMS[n]) && text.behind(SYSTEMS[n]).takePoint(reply.position)) {
            reply.eKind = REPLY_SYSTEM;
            reply.nCode = n;
        }
    }
    return reply;
}

} // namespace

GrblLanguage::GrblLanguage(const std::string& strPilotOn, const std::string& strPilotOff)
    : m_strPilotOn(strPilotOn + "\n"), m_strPilotOff(strPilotOff + "\n")
{
}

Reply GrblLanguage::parse(const char* pLine, size_t uLength) const
{
    Reply reply;
    const ReplyText text(pLine, uLength);
    if (text.is("ok")) {
        reply.eKind = REPLY_OK;
    } else if (text.takeCode("error:", reply.nCode)) {
        reply.eKind = REPLY_ERROR;
    } else if (text.takeCode("ALARM:", reply.nCode)) {
        reply.eKind = REPLY_ALARM;
    } else if (text.startsWith("Grbl ")) {
        reply.eKind = REPLY_GREETING;
    } else if (text.isWithin('<', '>')) {
        return parseReport(text.inner());
    } else if (text.isWithin('[', ']')) {
        return parseMessage(text.inner());
    } else if (text.startsWith("$")) {
        reply.eKind = text.startsWith("$32=") ? REPLY_LASER_MODE : REPLY_NOTE;
        reply.bSpindle = text.is("$32=1");
    } else if (text.startsWith(">")) { // a start-up block and its answer
        reply.eKind = REPLY_NOTE;
    }
    return reply;
}

AllowedWords GrblLanguage::getWords() const
{
    return {G_WORDS, sizeof(G_WORDS) / sizeof(G_WORDS[0]), M_WORDS,
            sizeof(M_WORDS) / sizeof(M_WORDS[0]), true};
}

double GrblLanguage::getPowerUpFeed() const
{
    return 0;
}

const char* GrblLanguage::getBeamOff() const
{
    return "\x18";
}

const char* GrblLanguage::getLaserOff() const
{
    return "M5\n";
}

const char* GrblLanguage::getHold() const
{
    return "!";
}

const char* GrblLanguage::getResume() const
{
    return "~";
}

const char* GrblLanguage::getUnlock() const
{
    return "$X\n";
}

const char* GrblLanguage::getHome() const
{
    return "$H\n";
}

const char* GrblLanguage::getPilot(bool bOn) const
{
    return (bOn ? m_strPilotOn : m_strPilotOff).c_str();
}

bool GrblLanguage::isPilotOffByReset() const
{
    return true;
}

const char* GrblLanguage::getQuestion() const
{
    return "?";
}

const char* GrblLanguage::getFirmwareLine() const
{
    return nullptr;
}

const char* GrblLanguage::getProbe() const
{
    return "\n";
}

const char* GrblLanguage::getSettingsLine(size_t uIndex) const
{
    static const char* const LINES[] = {"$$\n", "$#\n"};
    return (uIndex < 2) ? LINES[uIndex] : nullptr;
}

bool GrblLanguage::hasReports() const
{
    return true;
}

bool GrblLanguage::isResumeAnswered() const
{
    return false;
}

bool GrblLanguage::isHomeAnsweredOnce() const
{
    return true;
}

bool GrblLanguage::needsLaserMode() const
{
    return true;
}

size_t GrblLanguage::getBufferSize() const
{
    return 127; // of its 128 bytes one stays free
}

size_t GrblLanguage::encodeLine(const char* /*pText*/, size_t /*uLength*/, const GcodeLine& line,
                                char* pOut, size_t uRoom) const
{
    if (0 == line.uLength || line.uLength + 1 > uRoom) {
        return 0;
    }
    memcpy(pOut, line.acText.data(), line.uLength);
    pOut[line.uLength] = '\n';
    return line.uLength + 1;
}

size_t GrblLanguage::encodeMove(const char* pText, size_t uLength, const GcodeLine& line,
                                char* pOut, size_t uRoom) const
{
    static const char* const STRAIGHT = "G90G21G53G1";
    const size_t uPrefix = strlen(STRAIGHT);
    // Behind "G05" or "G5", which comes first, the words are the same.
    size_t uSkip = 1;
    while (uSkip < line.uLength && line.acText[uSkip] >= '0' && line.acText[uSkip] <= '9') {
        ++uSkip;
    }
    const size_t uWords = line.uLength - uSkip;
    (void)pText;
    (void)uLength;
    if (uPrefix + uWords > GcodeLine::MAX_TEXT || uPrefix + uWords + 1 > uRoom) {
        return 0;
    }
    char* pAt = std::copy_n(STRAIGHT, uPrefix, pOut);
    pAt = std::copy_n(line.acText.data() + uSkip, uWords, pAt);
    *pAt = '\n';
    return uPrefix + uWords + 1;
}
