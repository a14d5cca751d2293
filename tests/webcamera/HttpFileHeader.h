// The header that an answer with a file has, as a test spells it.
#pragma once

#include <cstddef>
#include <string>

inline std::string header(const std::string& strType, size_t uSize)
{
    return "HTTP/1.0 200 OK\r\n"
           "Connection: close\r\n"
           "Cache-Control: no-store, no-cache, must-revalidate, pre-check=0, post-check=0, max-age=0\r\n"
           "Expires: Mon, 3 Jan 2000 12:34:56 GMT\r\n"
           "Content-type: " +
           strType +
           "\r\n"
           "Server: MJPG-Streamer\r\n"
           "Content-Length: " +
           std::to_string(uSize) +
           "\r\n"
           "Cache-Control: no-cachePragma: no-cache\r\n"
           "\r\n";
}
