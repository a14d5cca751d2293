// A request to the station that is made on a thread of its own.
#pragma once

#include <future>
#include <string>
#include <thread>

#include "StationClient.h"

/** One at a time. Used by one thread. */
class PendingRequest
{
public:
    /** @param nWake  an eventfd(2), written to when the answer is there; outlives the object */
    explicit PendingRequest(int nWake) : m_nWake(nWake) {}
    PendingRequest(const PendingRequest&) = delete;
    PendingRequest& operator=(const PendingRequest&) = delete;

    /** Waits for the answer. */
    ~PendingRequest();

    /** Begin; only while none is under way. */
    void post(const StationClient& client, const std::string& strPath, const nlohmann::json& body,
              int nTimeoutMs);

    bool isUnderWay() const
    {
        return m_thread.joinable();
    }

    /** @return whether the answer was there; then none is under way */
    bool take(StationAnswer& answer);

private:
    const int m_nWake;
    std::future<StationAnswer> m_answer;
    std::thread m_thread;
};
