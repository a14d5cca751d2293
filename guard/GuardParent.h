// The process that watches the guard at work.
#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

/**
 * Starts the worker as a process of its own and only watches: when a beat is missing for a second,
 * or the worker ends in any way of its own, it is killed and the beam is cut from here. A worker
 * whose parent is gone gets SIGTERM. Tells systemd, where NOTIFY_SOCKET says so, that the guard is
 * ready and alive.
 */
class GuardParent
{
public:
    /** @param strPort  where the beam is cut */
    explicit GuardParent(std::string strPort) : m_strPort(std::move(strPort)) {}

    /**
     * Blocks until the worker has ended. SIGTERM and SIGINT are passed on, SIGHUP too.
     * @param worker  runs in the child with the descriptor to write beats to; its result is the
     * child's status
     * @return the worker's status when it ended in order, else 1
     */
    int run(const std::function<int(int)>& worker);

private:
    int watch(pid_t nWorker, int nBeatFd);
    static void notify(const char* pText);

    std::string m_strPort;
};
