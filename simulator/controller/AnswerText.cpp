// The virtual controller's language: how its answers read.
#include "AnswerText.h"

static std::string formatCode(const char* pPrefix, int nCode)
{
    return pPrefix + std::to_string(nCode) + "\n";
}

std::string formatGreeting()
{
    return "ready\n";
}

std::string formatOk()
{
    return "ok\n";
}

std::string formatDone()
{
    return "done\n";
}

std::string formatError(int nCode)
{
    return formatCode("error:", nCode);
}

std::string formatAlarm(int nCode)
{
    return formatCode("alarm:", nCode);
}

std::string formatStatus(int nCode)
{
    return formatCode("status:", nCode);
}
