// The print service's reply codec for the arm's own language, which the guard speaks in any case.
#include "KestrelLanguage.h"
#include "ReplyCodec.h"

// The signatures take values, as every codec's do.
// NOLINTBEGIN(performance-unnecessary-value-param)

/**
 * Look for lines of a kind; one without its line end is half an answer and says nothing.
 * @param nCode  the last code above 0 of those lines; else as it was
 */
static bool find(const std::string& strReply, REPLY_E eKind, int& nCode)
{
    const KestrelLanguage language;
    bool bFound = false;
    size_t uStart = 0;
    for (size_t uEnd = strReply.find('\n'); std::string::npos != uEnd;
         uEnd = strReply.find('\n', uStart)) {
        const Reply reply = language.parse(strReply.data() + uStart, uEnd - uStart);
        uStart = uEnd + 1;
        if (eKind == reply.eKind) {
            bFound = true;
            nCode = (0 != reply.nCode) ? reply.nCode : nCode;
        }
    }
    return bFound;
}

static int findCode(const std::string& strReply, REPLY_E eKind)
{
    int nCode = 0;
    (void)find(strReply, eKind, nCode); // none found: 0
    return nCode;
}

int ReplyCodec::getStatusCode(std::string strReply)
{
    return findCode(strReply, REPLY_STATUS);
}

int ReplyCodec::getErrorCode(std::string strReply)
{
    return findCode(strReply, REPLY_ERROR);
}

int ReplyCodec::getAlarmCode(std::string strReply)
{
    return findCode(strReply, REPLY_ALARM);
}

bool ReplyCodec::isAck(std::string strReply)
{
    int nCode = 0;
    return find(strReply, REPLY_OK, nCode);
}

std::string ReplyCodec::encodeCommand(std::string strCommand)
{
    // The service ends the line itself; a further line end would be an empty line.
    while (!strCommand.empty() && '\n' == strCommand.back()) {
        strCommand.pop_back();
    }
    return strCommand;
}

std::string ReplyCodec::encodeIdleReport(std::vector<int32_t> vecValue, int32_t s32Arg1,
                                         int32_t s32Arg2)
{
    std::string strReport = "idle:" + std::to_string(s32Arg1) + "," + std::to_string(s32Arg2);
    for (const int32_t s32Value : vecValue) {
        strReport += "," + std::to_string(s32Value);
    }
    return strReport;
}

// NOLINTEND(performance-unnecessary-value-param)
