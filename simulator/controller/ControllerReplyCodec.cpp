// The reply codec for the virtual controller's language, in place of the service's placeholder.
#include "AnswerText.h"
#include "ReplyCodec.h"

// The signatures take values, as every codec's do.
// NOLINTBEGIN(performance-unnecessary-value-param)

int ReplyCodec::getStatusCode(std::string strReply)
{
    return parseReply(strReply).nStatus;
}

int ReplyCodec::getErrorCode(std::string strReply)
{
    return parseReply(strReply).nError;
}

int ReplyCodec::getAlarmCode(std::string strReply)
{
    return parseReply(strReply).nAlarm;
}

bool ReplyCodec::isAck(std::string strReply)
{
    return parseReply(strReply).bAck;
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
