// The station: what of the arm is there, what goes on, and what the operator wants.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "ArmMeasure.h"
#include "ArmTerminal.h"
#include "ArmUse.h"
#include "Configuration.h"
#include "GuardLink.h"
#include "JobRun.h"
#include "JobStore.h"
#include "PictureWatch.h"
#include "RestartOffer.h"
#include "StateBoard.h"
#include "StateReport.h"
#include "StationConfiguration.h"
#include "StationJournal.h"
#include "Thread.h"
#include "TripCount.h"

/**
 * Works without guard, plug-in or camera, and tells what is missing. What is asked for and not done
 * is thrown as an ApiProblem. Any thread, unless stated otherwise; what moves the arm waits for its
 * end.
 *
 * Its thread, "station", opens and closes the guard's terminal and publishes the state.
 */
class Station
{
public:
    /** In the working directory; the guard's configuration is read anew only by the next one. */
    explicit Station(const StationConfiguration& configuration);
    Station(const Station&) = delete;
    Station& operator=(const Station&) = delete;

    /** As stop(); nobody may ask any more, since the terminal is closed. */
    ~Station();

    void start();

    /** Turns the beam off when anything is under way. */
    void stop();

    /** Everything that is known, as docs/api.yaml's State. */
    nlohmann::json describe() const;

    /** The same, after a look at the guard. */
    nlohmann::json describeAnew();

    StationJournal& getJournal()
    {
        return m_journal;
    }
    StateBoard& getBoard()
    {
        return m_board;
    }
    const TripCount& getTrips() const
    {
        return m_trips;
    }

    JobStore& getStore()
    {
        return *m_pStore;
    }
    JobRun& getRun()
    {
        return *m_pRun;
    }

    /** docs/api.yaml's Started. */
    nlohmann::json startJob(const std::string& strName, bool bUnattended, size_t uLine);

    void turnOff();
    void setLevel(const std::string& strLevel);
    void home();

    /** @param strWords  of a straight move: "X1 Y2 F600" */
    void move(const std::string& strWords);
    void jog(const std::string& strWords);

    /** docs/api.yaml's Measurement. */
    nlohmann::json measure();
    const ArmMeasure& getMeasure() const
    {
        return m_measure;
    }
    void unlock();
    void reset();

    /** @param nFile  stays the caller's; the guard compares it with size and sum */
    void sendFirmware(int nFile, uint64_t u64Size, const std::string& strSum);

private:
    int loop();
    void onGuardEvent(const nlohmann::json& event);
    void onGuardState(const GuardState& state);
    void readGuardConfiguration();
    void updateReady();
    void publish();
    void ask(const nlohmann::json& request, int nFile = -1);
    void demandMotion();
    void demandTerminal();
    void judge(ArmTerminal::ANSWER_E eAnswer);

    const StationConfiguration m_configuration;
    Configuration m_guardConfiguration;
    std::string m_strNoLimits; // why the guard's configuration is of no use; empty: it is
    StationJournal m_journal;
    StateBoard m_board;
    TripCount m_trips;
    PictureWatch m_pictures;
    std::unique_ptr<ArmTerminal> m_pTerminal;
    std::unique_ptr<GuardLink> m_pGuard;
    std::unique_ptr<JobStore> m_pStore;
    std::unique_ptr<JobRun> m_pRun;
    std::unique_ptr<RestartOffer> m_pRestart;
    std::unique_ptr<StateReport> m_pReport;
    ArmMeasure m_measure;
    // Times that the guard told it.
    std::atomic<uint32_t> m_u32Homed{0};
    std::atomic<uint32_t> m_u32Refused{0};
    std::atomic<uint32_t> m_u32Trips{0};
    std::atomic<bool> m_bGuardSeen{false};
    std::atomic<bool> m_bAlarm{false}; // the controller's, until it is homed or unlocked
    std::atomic<bool> m_bEnd{false};
    bool m_bDarkened = false; // the thread: no job of a former station's runs on
    uint64_t m_u64WakeMs = 0; // of the thread
    uint64_t m_u64ToldId = 0;
    Mutex m_mtxReady{MUTEX_TYPE_NORMAL}; // guards ArmUse's flag while it is looked at
    std::unique_ptr<Thread> m_pThread;
};
