// Where the job that ended last can go on.
#include "RestartOffer.h"

#include <sys/stat.h>

#include "JobRun.h"
#include "JobStore.h"

using nlohmann::json;

RestartOffer::RestartOffer(JobStore& store, const JobRun& run) : m_store(store), m_run(run) {}

void RestartOffer::look()
{
    const json last = m_run.describeLast();
    if (!last.is_object() || "done" == last["result"]) {
        return;
    }
    const std::string strName = last["name"];
    struct stat file = {};
    (void)stat(JobStore::getPath(strName).c_str(), &file); // gone: all zero
    const std::string strOf = last.dump();
    const std::string strKey = strOf + std::to_string(file.st_ino) + "." +
                               std::to_string(file.st_mtim.tv_sec) + "." +
                               std::to_string(file.st_mtim.tv_nsec);
    if (strKey == m_strKey) {
        return;
    }
    const std::string strSum = last["sha256"];
    const size_t uThrough = last["line"];
    const bool bBegun = m_pool.add([this, strOf, strName, strSum, uThrough] {
        const json restart = m_store.describeRestart(strName, strSum, uThrough);
        const MutexGuard guard(m_mtx);
        m_restart = restart;
        m_strOf = strOf;
    });
    if (bBegun) { // else at the next look
        m_strKey = strKey;
    }
}

json RestartOffer::describeLastJob() const
{
    json last = m_run.describeLast();
    const MutexGuard guard(m_mtx);
    if (last.is_object() && last.dump() == m_strOf) {
        last["restart"] = m_restart;
    }
    return last;
}
