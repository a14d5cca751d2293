// What the service asks of its codec.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>
#include <vector>

/** The program's codec is that of its controller, and keeps these. */
struct CodecCalls
{
    static std::vector<std::string> s_vecIdleReport; // what it was asked to encode
    static std::atomic<size_t> s_uLongestReply;      // that it was given, in bytes
};
