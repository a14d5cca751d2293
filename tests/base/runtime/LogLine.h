// One log line, as a caller with a source of its own writes it.
#pragma once

#include "EventBus.h"
#include "Log.h"

// A macro, so that the compiler sees each format.
#define LOG_LINE(level, ...) Log::getInstance().log("Some.cpp", 12, "doIt", level, __VA_ARGS__)
