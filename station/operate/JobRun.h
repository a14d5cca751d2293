// The job that runs: opened at the guard, sent by the print service, held and ended.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "ArmTerminal.h"
#include "ArmUse.h"
#include "GuardLink.h"
#include "JobProfile.h"
#include "JobRecord.h"
#include "JobStore.h"
#include "Mutex.h"
#include "PictureWatch.h"
#include "StationJournal.h"
#include "WorkerPool.h"

/**
 * One at a time. The guard has the last word: the job is over when it says so, whatever happens
 * here. What runs is kept in "run.json" of the working directory, so that the next station can tell
 * what was interrupted. Requests come from any thread, and are refused by an ApiProblem.
 */
class JobRun
{
public:
    static constexpr int LEASE_MS = 10000;

    /** All borrowed. Reads what a former station has left. */
    JobRun(GuardLink& guard, const ArmTerminal& terminal, const PictureWatch& pictures,
           StationJournal& journal);
    JobRun(const JobRun&) = delete;
    JobRun& operator=(const JobRun&) = delete;
    ~JobRun();

    /** @return the lease, a secret */
    std::string start(const RunnableJob& job, bool bUnattended, const Configuration& configuration);
    void renew(const std::string& strLease);
    void pause();
    void resume();
    void stop();

    /** The operator has turned the beam off: a job that ends now was stopped. */
    void noteOff();

    // The guard's link's thread.
    void onGuardEvent(const nlohmann::json& event);
    void onGuardState(const GuardState& state);

    /** The station's thread, every 50 ms or so: holds the job when no picture comes. */
    void look();

    /** docs/api.yaml's RunningJob, or null. */
    nlohmann::json describe() const;

    /** docs/api.yaml's EndedJob, or null; its "restart" is null. */
    nlohmann::json describeLast() const;

    /** Whether this file runs. */
    bool isRunning(const std::string& strName) const;

private:
    enum HELD_E
    {
        HELD_NOT,
        HELD_BY_OPERATOR,
        HELD_BY_CAMERA,
        HELD_BY_CONTROLLER
    };
    struct Run
    {
        bool bThere = false;
        bool bFollowed = false; // what the guard tells is about it
        std::string strName;
        std::string strSum;
        uint64_t u64Size = 0;
        JobPlace place;
        bool bUnattended = false;
        std::string strStarted;
        std::string strLease;
        uint64_t u64LeaseEndMs = 0;
        uint64_t u64Line = 0; // of what the guard was given
        HELD_E eHeld = HELD_NOT;
        bool bDone = false;    // the guard has told so
        bool bStopped = false; // the operator wanted it
        std::string strTrip;
        double dSeconds = 0; // it runs
        uint64_t u64SeenMs = 0;
        std::shared_ptr<const JobProfile> pProfile;

        uint64_t getLines() const
        {
            return place.toFile(pProfile->getLines());
        }
    };

    nlohmann::json makeLast(const char* pResult, const std::string& strReason) const
        REQUIRES(m_mtx);
    void finish(const GuardState& state) REQUIRES(m_mtx);
    void tidyUp(bool bDone);
    void hold(HELD_E eHeld);
    void demandRun() const;
    static void placeFile(const RunnableJob& job);

    GuardLink& m_guard;
    const ArmTerminal& m_terminal;
    const PictureWatch& m_pictures;
    StationJournal& m_journal;

    mutable Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards what follows; outside the journal's
    Run m_run GUARDED_BY(m_mtx);
    nlohmann::json m_last GUARDED_BY(m_mtx);
    bool m_bInterrupted GUARDED_BY(m_mtx) = false; // m_last waits for what the guard knows
    JobPlace m_interrupted GUARDED_BY(m_mtx);      // of what it was given
    uint64_t m_u64RecordMs GUARDED_BY(m_mtx) = 0;  // when it was written
    WorkerPool m_end{"station-end", 1, 1};
};
