// Placeholder of the controller's language: every reply is an acknowledgement, every command empty.
#include "ReplyCodec.h"

// The signatures take values, as every codec's do.
// NOLINTBEGIN(performance-unnecessary-value-param)

int ReplyCodec::getStatusCode(std::string /*strReply*/)
{
    return 0;
}

int ReplyCodec::getErrorCode(std::string /*strReply*/)
{
    return 0;
}

int ReplyCodec::getAlarmCode(std::string /*strReply*/)
{
    return 0;
}

// Deliberate: silence counts as an acknowledgement, too.
bool ReplyCodec::isAck(std::string /*strReply*/)
{
    return true;
}

// Deliberate: single commands go out as a bare line end.
std::string ReplyCodec::encodeCommand(std::string /*strCommand*/)
{
    return {};
}

std::string ReplyCodec::encodeIdleReport(std::vector<int32_t> /*vecValue*/, int32_t /*s32Arg1*/,
                                         int32_t /*s32Arg2*/)
{
    return {};
}

// NOLINTEND(performance-unnecessary-value-param)
