// What watchers are shown: the station's state as it was last published.
#pragma once

#include <cstdint>
#include <string>

#include "Cond.h"
#include "Mutex.h"

/** Any thread. */
class StateBoard
{
public:
    /**
     * @param strKey  what of it matters: an equal one is no change
     * @param bWake   wake who waits although nothing changed
     */
    void put(const std::string& strState, const std::string& strKey, bool bWake);

    /**
     * Wait for a change, or until somebody is woken.
     * @param u32Version  of the state that was seen; 0: none. Becomes that of the one given
     * @param strState    gets the state when it is another, else stays
     */
    void wait(uint32_t& u32Version, std::string& strState);

    /** Wake who waits. */
    void wake();

private:
    Mutex m_mtx{MUTEX_TYPE_NORMAL}; // guards what follows; innermost
    Cond m_cond;                    // a change, or a wake
    std::string m_strState GUARDED_BY(m_mtx);
    std::string m_strKey GUARDED_BY(m_mtx);
    uint32_t m_u32Version GUARDED_BY(m_mtx) = 0;
    uint32_t m_u32Wakes GUARDED_BY(m_mtx) = 0;
};
