// The record of everything that crosses the virtual controller's wire and pins.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

/**
 * Writes one line per event: seconds since the start with six decimals, the kind, the text.
 *
 *     0.104233 rx $H
 *
 * Bytes of the text outside the printable ASCII range and the backslash stand as \n, \r, \t, \\ or
 * \xHH. Lines are buffered until flush().
 */
class ControllerJournal
{
public:
    ControllerJournal() = default;
    ControllerJournal(const ControllerJournal&) = delete;
    ControllerJournal& operator=(const ControllerJournal&) = delete;
    ~ControllerJournal();

    /** Create or truncate the file. @return false with errno set */
    bool open(const std::string& strPath);

    /** Without an open file nothing happens. */
    void record(int64_t s64NowUs, const char* pKind, const std::string& strText);

    void flush();

    static std::string escape(const std::string& strText);

    /** Undoes escape(); an escape that it does not know stays as it is. */
    static std::string unescape(const std::string& strText);

private:
    FILE* m_pFile = nullptr;
};
