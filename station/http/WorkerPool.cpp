// Threads that work off tasks, one after the other.
#include "WorkerPool.h"

#include <utility>

WorkerPool::WorkerPool(std::string strName, size_t uThreads, size_t uWaiting)
    : m_strName(std::move(strName)), m_uThreads(uThreads), m_uWaiting(uWaiting)
{
}

WorkerPool::~WorkerPool()
{
    close();
    m_vecThread.clear(); // waits
}

void WorkerPool::close()
{
    {
        const MutexGuard guard(m_mtx);
        m_bEnd = true;
        m_deqTask.clear();
    }
    (void)m_cond.broadcast(); // cannot fail for a condition of ours
}

bool WorkerPool::add(std::function<void()> task)
{
    bool bThread = false;
    {
        const MutexGuard guard(m_mtx);
        const bool bRoom = m_deqTask.size() < m_uIdle || m_vecThread.size() < m_uThreads ||
                           m_deqTask.size() < m_uIdle + m_uWaiting;
        if (m_bEnd || !bRoom) {
            return false;
        }
        m_deqTask.push_back(std::move(task));
        bThread = m_deqTask.size() > m_uIdle && m_vecThread.size() < m_uThreads;
    }
    (void)m_cond.signal();
    if (bThread) {
        m_vecThread.push_back(
            std::make_unique<Thread>(&WorkerPool::work, this, m_strName, 0, 0, 0, true));
        (void)m_vecThread.back()->start(); // returns 0
    }
    return true;
}

int WorkerPool::work()
{
    std::function<void()> task;
    {
        const MutexGuard guard(m_mtx);
        ++m_uIdle;
        while (m_deqTask.empty() && !m_bEnd) {
            (void)m_cond.wait(m_mtx);
        }
        --m_uIdle;
        if (m_bEnd) {
            return 1;
        }
        task = std::move(m_deqTask.front());
        m_deqTask.pop_front();
    }
    task();
    return 0;
}
