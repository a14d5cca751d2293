// The language of the arm's own controller: ok, done, error, status and alarm.
#include "KestrelLanguage.h"

#include <cstring>

#include "ReplyText.h"

static const int G_WORDS[] = {0, 10, 20, 30, 40, 170, 210, 540, 900, 910};
static const int M_WORDS[] = {20, 30, 40, 50};

Reply KestrelLanguage::parse(const char* pLine, size_t uLength) const
{
    Reply reply;
    const ReplyText text(pLine, uLength);
    if (text.is("ok")) {
        reply.eKind = REPLY_OK;
    } else if (text.is("done")) {
        reply.eKind = REPLY_DONE;
    } else if (text.is("ready")) {
        reply.eKind = REPLY_GREETING;
    } else if (text.takeCode("error:", reply.nCode)) {
        reply.eKind = REPLY_ERROR;
    } else if (text.takeCode("status:", reply.nCode)) {
        reply.eKind = REPLY_STATUS;
    } else if (text.takeCode("alarm:", reply.nCode)) {
        reply.eKind = REPLY_ALARM;
    }
    return reply;
}

AllowedWords KestrelLanguage::getWords() const
{
    return {G_WORDS, sizeof(G_WORDS) / sizeof(G_WORDS[0]), M_WORDS,
            sizeof(M_WORDS) / sizeof(M_WORDS[0]), false};
}

double KestrelLanguage::getPowerUpFeed() const
{
    return 1000;
}

const char* KestrelLanguage::getBeamOff() const
{
    return "\x18";
}

const char* KestrelLanguage::getLaserOff() const
{
    return "M5\n";
}

const char* KestrelLanguage::getHold() const
{
    return "!";
}

const char* KestrelLanguage::getResume() const
{
    return "~\n";
}

const char* KestrelLanguage::getUnlock() const
{
    return "$X\n";
}

const char* KestrelLanguage::getHome() const
{
    return "$H\n";
}

const char* KestrelLanguage::getPilot(bool bOn) const
{
    return bOn ? "M18 S1\n" : "M18 S0\n";
}

bool KestrelLanguage::isPilotOffByReset() const
{
    return false;
}

const char* KestrelLanguage::getQuestion() const
{
    return "";
}

const char* KestrelLanguage::getFirmwareLine() const
{
    return "M21\n";
}

const char* KestrelLanguage::getProbe() const
{
    return "()\n";
}

const char* KestrelLanguage::getSettingsLine(size_t /*uIndex*/) const
{
    return nullptr;
}

bool KestrelLanguage::hasReports() const
{
    return false;
}

bool KestrelLanguage::isResumeAnswered() const
{
    return true;
}

bool KestrelLanguage::isHomeAnsweredOnce() const
{
    return false;
}

bool KestrelLanguage::needsLaserMode() const
{
    return false;
}

size_t KestrelLanguage::getBufferSize() const
{
    return 4096; // a pseudo terminal's or a USB port's; the guard never has that much outstanding
}

size_t KestrelLanguage::encodeLine(const char* pText, size_t uLength, const GcodeLine& /*line*/,
                                   char* pOut, size_t uRoom) const
{
    if (0 == uLength || uLength + 1 > uRoom) {
        return 0;
    }
    memcpy(pOut, pText, uLength);
    pOut[uLength] = '\n';
    return uLength + 1;
}

size_t KestrelLanguage::encodeMove(const char* pText, size_t uLength, const GcodeLine& line,
                                   char* pOut, size_t uRoom) const
{
    return encodeLine(pText, uLength, line, pOut, uRoom);
}
