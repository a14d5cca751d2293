// What watchers are shown: the station's state as it was last published.
#include "StateBoard.h"

void StateBoard::put(const std::string& strState, const std::string& strKey, bool bWake)
{
    {
        const MutexGuard guard(m_mtx);
        if (m_u32Version > 0 && m_strKey == strKey && !bWake) {
            return;
        }
        m_u32Version += (m_u32Version > 0 && m_strKey == strKey) ? 0 : 1;
        m_strState = strState;
        m_strKey = strKey;
        ++m_u32Wakes;
    }
    (void)m_cond.broadcast(); // cannot fail for a condition of ours
}

void StateBoard::wake()
{
    {
        const MutexGuard guard(m_mtx);
        ++m_u32Wakes;
    }
    (void)m_cond.broadcast();
}

void StateBoard::wait(uint32_t& u32Version, std::string& strState)
{
    const MutexGuard guard(m_mtx);
    const uint32_t u32Wakes = m_u32Wakes;
    while (m_u32Version == u32Version && m_u32Wakes == u32Wakes) {
        (void)m_cond.wait(m_mtx);
    }
    if (m_u32Version != u32Version) {
        u32Version = m_u32Version;
        strState = m_strState;
    }
}
