// Stays with a job that runs: its lease, its progress, the person's keys.
#pragma once

#include <chrono>
#include <string>

#include "BeamOff.h"
#include "Descriptor.h"
#include "ExitStatus.h"
#include "Keys.h"
#include "PendingRequest.h"
#include "StationClient.h"

/**
 * Renews the lease while the program lives. Space pauses and goes on, "s" stops; SIGINT, SIGTERM,
 * SIGHUP, a lost terminal and an output that nobody reads turn the beam off. Requests are made on
 * threads of their own, so that none keeps the beam on. What is shown goes to standard output, what
 * went wrong to standard error.
 *
 * For one job. blockSignals() comes before the program has a second thread.
 */
class JobMinder
{
public:
    /** @param started  the station's answer to the start, with the lease */
    JobMinder(const StationClient& client, BeamOff beamOff, const nlohmann::json& started,
              bool bJson);
    JobMinder(const JobMinder&) = delete;
    JobMinder& operator=(const JobMinder&) = delete;

    static void blockSignals();

    /** Until the job has ended, one way or another. @return the program's status */
    EXIT_STATUS_E run();

private:
    using Clock = std::chrono::steady_clock;

    void wait();
    void takeSignals();
    void takeKey(int nKey);
    void takeAnswers();
    void takeLease(const StationAnswer& answer);
    void takeState(const nlohmann::json& state);
    void turnOff(const char* pWhy);
    void end(EXIT_STATUS_E eStatus);
    void show(const nlohmann::json& job);
    void tell(const std::string& strText);

    StationClient m_client;
    BeamOff m_beamOff;
    const nlohmann::json m_lease; // the body of a renewal
    const std::chrono::milliseconds m_leaseTime;
    const bool m_bJson;
    const bool m_bBar; // standard output is a terminal
    Keys m_keys;
    Descriptor m_signals; // signalfd(2)
    Descriptor m_wake;    // eventfd(2): a request has been answered
    PendingRequest m_renewal;
    PendingRequest m_action;     // a key's
    Clock::time_point m_renewed; // when it was last
    Clock::time_point m_next;    // when it is to be
    bool m_bLost = false;        // has told that the station does not answer
    bool m_bHeld = false;
    bool m_bStopDue = false; // its key was pressed
    bool m_bOff = false;     // beam off was asked for
    std::string m_strShown;
    bool m_bEnded = false;
    EXIT_STATUS_E m_eStatus = STATUS_DONE;
};
