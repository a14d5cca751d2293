// What has happened at the arm, kept on disk and told to watchers.
#include "StationJournal.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "WallTime.h"

static const char* const FILE_NAME = "journal.jsonl";
static const char* const FORMER_NAME = "journal.1.jsonl";

using nlohmann::json;

json StationJournal::Entry::toJson() const
{
    return {{"id", u64Id}, {"time", strTime}, {"source", strSource}, {"text", strText}};
}

StationJournal::StationJournal()
{
    const MutexGuard guard(m_mtx);
    read(FORMER_NAME);
    m_uFile = 0;
    read(FILE_NAME);
}

void StationJournal::read(const char* pFile)
{
    std::ifstream file(pFile);
    std::string strLine;
    while (std::getline(file, strLine)) {
        m_uFile += strLine.size() + 1;
        const json entry = json::parse(strLine, nullptr, false);
        const bool bWhole =
            entry.is_object() && entry.contains("id") && entry["id"].is_number_unsigned() &&
            entry.contains("time") && entry["time"].is_string() && entry.contains("source") &&
            entry["source"].is_string() && entry.contains("text") && entry["text"].is_string();
        if (!bWhole) {
            continue; // the power went in the middle of a line
        }
        m_deqEntry.push_back({entry["id"], entry["time"], entry["source"], entry["text"]});
        m_u64LastId = std::max(m_u64LastId, m_deqEntry.back().u64Id);
        if (m_deqEntry.size() > MAX_ENTRIES) {
            m_deqEntry.pop_front();
        }
    }
}

void StationJournal::add(const std::string& strSource, const std::string& strText)
{
    const MutexGuard guard(m_mtx);
    m_deqEntry.push_back({++m_u64LastId, getWallTime(), strSource, strText.substr(0, MAX_TEXT)});
    if (m_deqEntry.size() > MAX_ENTRIES) {
        m_deqEntry.pop_front();
    }
    write(m_deqEntry.back());
}

void StationJournal::write(const Entry& entry)
{
    const std::string strLine =
        entry.toJson().dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
    if (m_uFile + strLine.size() > MAX_FILE) {
        (void)rename(FILE_NAME, FORMER_NAME); // else the file grows
        m_uFile = 0;
    }
    FILE* const pFile = fopen(FILE_NAME, "ae");
    bool bWritten =
        nullptr != pFile && strLine.size() == fwrite(strLine.data(), 1, strLine.size(), pFile);
    bWritten = nullptr != pFile && 0 == fclose(pFile) && bWritten;
    if (!bWritten) {
        printf("journal: cannot write %s\n", FILE_NAME); // kept in memory
    }
    m_uFile += strLine.size();
}

std::vector<StationJournal::Entry> StationJournal::getBehind(uint64_t u64Id, size_t uLimit) const
{
    const MutexGuard guard(m_mtx);
    std::vector<Entry> vecEntry;
    for (auto it = m_deqEntry.rbegin();
         it != m_deqEntry.rend() && it->u64Id > u64Id && vecEntry.size() < uLimit; ++it) {
        vecEntry.push_back(*it);
    }
    std::reverse(vecEntry.begin(), vecEntry.end());
    return vecEntry;
}

uint64_t StationJournal::getLastId() const
{
    const MutexGuard guard(m_mtx);
    return m_u64LastId;
}
