// A codec that keeps what it was asked.
#include "CodecCalls.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "ReplyCodec.h"

std::vector<std::string> CodecCalls::s_vecIdleReport;
std::atomic<size_t> CodecCalls::s_uLongestReply{0};

static int codeBehind(const std::string& strReply, const char* pName)
{
    const size_t nPos = strReply.find(pName);
    return (std::string::npos == nPos) ? 0 : atoi(strReply.c_str() + nPos + strlen(pName));
}

// NOLINTBEGIN(performance-unnecessary-value-param)

int ReplyCodec::getStatusCode(std::string strReply)
{
    CodecCalls::s_uLongestReply = std::max(CodecCalls::s_uLongestReply.load(), strReply.size());
    return codeBehind(strReply, "status:");
}

int ReplyCodec::getErrorCode(std::string strReply)
{
    return codeBehind(strReply, "error:");
}

int ReplyCodec::getAlarmCode(std::string strReply)
{
    return codeBehind(strReply, "alarm:");
}

bool ReplyCodec::isAck(std::string strReply)
{
    return std::string::npos != strReply.find("ok");
}

std::string ReplyCodec::encodeCommand(std::string strCommand)
{
    return strCommand;
}

std::string ReplyCodec::encodeIdleReport(std::vector<int32_t> vecValue, int32_t s32Arg1,
                                         int32_t s32Arg2)
{
    std::string strReport = std::to_string(s32Arg1) + " " + std::to_string(s32Arg2) + ":";
    for (const int32_t s32Value : vecValue) {
        strReport += " " + std::to_string(s32Value);
    }
    CodecCalls::s_vecIdleReport.push_back(strReport);
    return strReport;
}

// NOLINTEND(performance-unnecessary-value-param)
