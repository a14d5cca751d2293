// A request to the station that is made on a thread of its own.
#include "PendingRequest.h"

#include <chrono>
#include <cstdint>
#include <utility>

#include <unistd.h>

PendingRequest::~PendingRequest()
{
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void PendingRequest::post(const StationClient& client, const std::string& strPath,
                          const nlohmann::json& body, int nTimeoutMs)
{
    std::packaged_task<StationAnswer()> task(
        [client, strPath, body, nTimeoutMs] { return client.post(strPath, body, nTimeoutMs); });
    m_answer = task.get_future();
    m_thread = std::thread([task = std::move(task), nWake = m_nWake]() mutable {
        task();
        const uint64_t u64One = 1;
        (void)!::write(nWake, &u64One, sizeof(u64One)); // full: it is awake anyhow
    });
}

bool PendingRequest::take(StationAnswer& answer)
{
    if (!isUnderWay() || std::future_status::ready != m_answer.wait_for(std::chrono::seconds(0))) {
        return false;
    }
    m_thread.join();
    answer = m_answer.get();
    return true;
}
