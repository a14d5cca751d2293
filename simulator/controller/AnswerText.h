// The virtual controller's language: how its answers read.
#pragma once

#include <string>

std::string formatGreeting();
std::string formatOk();
std::string formatDone();
std::string formatError(int nCode);
std::string formatAlarm(int nCode);
std::string formatStatus(int nCode);
