// What has happened at the arm, kept on disk and told to watchers.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Mutex.h"

/**
 * The last MAX_ENTRIES are kept in memory, all of them in "journal.jsonl" of the working directory,
 * a line of JSON each; at MAX_FILE the file becomes "journal.1.jsonl". Numbers go on where the file
 * ends. Any thread; an entry waits for the disk.
 */
class StationJournal
{
public:
    static const size_t MAX_ENTRIES = 1000;
    static const size_t MAX_FILE = 1U << 20;
    static const size_t MAX_TEXT = 1000; // bytes; longer ones are cut

    struct Entry
    {
        uint64_t u64Id;
        std::string strTime;
        std::string strSource;
        std::string strText;

        nlohmann::json toJson() const;
    };

    /** Reads what the file has. */
    StationJournal();
    StationJournal(const StationJournal&) = delete;
    StationJournal& operator=(const StationJournal&) = delete;

    /** @param strSource  "station", "guard" or "operator" */
    void add(const std::string& strSource, const std::string& strText);

    /** Entries behind one, the newest so many of them, the oldest first. */
    std::vector<Entry> getBehind(uint64_t u64Id, size_t uLimit) const;

    uint64_t getLastId() const;

private:
    void read(const char* pFile) REQUIRES(m_mtx);
    void write(const Entry& entry) REQUIRES(m_mtx);

    mutable Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards what follows, and the files; innermost
    std::deque<Entry> m_deqEntry GUARDED_BY(m_mtx);
    uint64_t m_u64LastId GUARDED_BY(m_mtx) = 0;
    size_t m_uFile GUARDED_BY(m_mtx) = 0; // bytes
};
