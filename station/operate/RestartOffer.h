// Where the job that ended last can go on.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Mutex.h"
#include "WorkerPool.h"

class JobRun;
class JobStore;

/** Looks through its file on a thread of its own, "station-restart". */
class RestartOffer
{
public:
    /** Both are borrowed. */
    RestartOffer(JobStore& store, const JobRun& run);
    RestartOffer(const RestartOffer&) = delete;
    RestartOffer& operator=(const RestartOffer&) = delete;

    /** Once for a job, and again when its file has changed. One thread. */
    void look();

    /** docs/api.yaml's EndedJob, or null. Any thread. */
    nlohmann::json describeLastJob() const;

private:
    JobStore& m_store;
    const JobRun& m_run;
    std::string m_strKey;                       // of what was looked at last
    mutable Mutex m_mtx{MUTEX_TYPE_NORMAL};     // guards what follows; innermost
    nlohmann::json m_restart GUARDED_BY(m_mtx); // of the job that ended last
    std::string m_strOf GUARDED_BY(m_mtx);      // its key
    WorkerPool m_pool{"station-restart", 1, 1}; // the last member: its thread uses the others
};
