// The virtual controller's language: how its answers read.
#pragma once

#include <string>

std::string formatGreeting();
std::string formatOk();
std::string formatDone();
std::string formatError(int nCode);
std::string formatAlarm(int nCode);
std::string formatStatus(int nCode);

/**
 * What an answer of one or more lines says. Only lines with their line end count, so half an answer
 * says nothing; of several codes of a kind the last holds.
 */
struct Reply
{
    bool bAck = false; // a line "ok"
    int nStatus = 0;   // "status:N"
    int nError = 0;    // "error:N"
    int nAlarm = 0;    // "alarm:N"
};

/** Any bytes are fine. */
Reply parseReply(const std::string& strReply);
