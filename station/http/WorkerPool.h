// Threads that work off tasks, one after the other.
#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Cond.h"
#include "Mutex.h"
#include "Thread.h"

/** Threads come when they are needed, up to a number, and stay. One thread adds tasks. */
class WorkerPool
{
public:
    /**
     * @param strName   of its threads
     * @param uThreads  at most
     * @param uWaiting  tasks that may wait for a thread
     */
    WorkerPool(std::string strName, size_t uThreads, size_t uWaiting);
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /** Waits for the tasks under way; those that wait are dropped. */
    ~WorkerPool();

    /** @return false when as many wait as may, or the pool ends; the task is dropped then */
    bool add(std::function<void()> task);

    /** No task begins from now on. */
    void close();

private:
    int work();

    const std::string m_strName;
    const size_t m_uThreads;
    const size_t m_uWaiting;
    Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards what follows; innermost
    Cond m_cond;                    // a task has come, or the end
    std::deque<std::function<void()>> m_deqTask GUARDED_BY(m_mtx);
    size_t m_uIdle GUARDED_BY(m_mtx) = 0;
    bool m_bEnd GUARDED_BY(m_mtx) = false;
    std::vector<std::unique_ptr<Thread>> m_vecThread; // the caller of add()'s alone
};
