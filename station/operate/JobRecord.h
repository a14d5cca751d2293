// What is kept of the job, so that the next station can tell what was interrupted.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

/** Where the lines of what the guard was given stand in the file. */
struct JobPlace
{
    std::string strSum;      // of what the guard was given
    uint64_t u64Skipped = 0; // lines of the file that it does not have
    uint64_t u64Added = 0;   // lines that stand before the rest

    uint64_t toFile(uint64_t u64Line) const
    {
        return u64Skipped + ((u64Line > u64Added) ? u64Line - u64Added : 0);
    }
};

/** "run.json" of the working directory. */
struct JobRecord
{
    nlohmann::json last;   // docs/api.yaml's EndedJob, or null
    bool bRunning = false; // when it was written
    JobPlace running;      // of no meaning while none was

    /** What a former station has left; without a file, or for one of another kind, nothing. */
    static JobRecord read();

    /** Keep it in place of the former one, which stays where that fails. */
    void write() const;
};
