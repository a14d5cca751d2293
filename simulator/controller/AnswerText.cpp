// The virtual controller's language: how its answers read.
#include "AnswerText.h"

#include <cstdlib>

static const char* const GREETING = "ready";
static const char* const OK = "ok";
static const char* const DONE = "done";
static const char* const ERROR = "error:";
static const char* const ALARM = "alarm:";
static const char* const STATUS = "status:";

static const size_t MAX_CODE_DIGITS = 6; // so that any code fits an int

namespace {

/** The number behind a prefix; 0 unless the line is exactly prefix and digits. */
int codeBehind(const std::string& strLine, const std::string& strPrefix)
{
    if (0 != strLine.compare(0, strPrefix.size(), strPrefix)) {
        return 0;
    }
    const std::string strDigits = strLine.substr(strPrefix.size());
    if (strDigits.empty() || strDigits.size() > MAX_CODE_DIGITS ||
        std::string::npos != strDigits.find_first_not_of("0123456789")) {
        return 0;
    }
    return atoi(strDigits.c_str()); // NOLINT(cert-err34-c): only digits, few enough
}

std::string formatCode(const char* pPrefix, int nCode)
{
    return pPrefix + std::to_string(nCode) + "\n";
}

} // namespace

std::string formatGreeting()
{
    return std::string(GREETING) + "\n";
}

std::string formatOk()
{
    return std::string(OK) + "\n";
}

std::string formatDone()
{
    return std::string(DONE) + "\n";
}

std::string formatError(int nCode)
{
    return formatCode(ERROR, nCode);
}

std::string formatAlarm(int nCode)
{
    return formatCode(ALARM, nCode);
}

std::string formatStatus(int nCode)
{
    return formatCode(STATUS, nCode);
}

Reply parseReply(const std::string& strReply)
{
    Reply reply;
    size_t uStart = 0;
    for (size_t uEnd = strReply.find('\n'); std::string::npos != uEnd;
         uEnd = strReply.find('\n', uStart)) {
        const std::string strLine = strReply.substr(uStart, uEnd - uStart);
        uStart = uEnd + 1;
        reply.bAck = reply.bAck || OK == strLine;
        if (const int nStatus = codeBehind(strLine, STATUS); 0 != nStatus) {
            reply.nStatus = nStatus;
        }
        if (const int nError = codeBehind(strLine, ERROR); 0 != nError) {
            reply.nError = nError;
        }
        if (const int nAlarm = codeBehind(strLine, ALARM); 0 != nAlarm) {
            reply.nAlarm = nAlarm;
        }
    }
    return reply;
}
