// One bound on the memory that the clients of all servers hold between them.
#include "ClientMemory.h"

#include <algorithm>

#include "Time.h"

ClientMemory& ClientMemory::getInstance()
{
    static ClientMemory s_instance;
    return s_instance;
}

uint32_t ClientMemory::getBytes()
{
    MutexGuard guard(m_mtx);
    return m_u32Bytes;
}

/** Shares within about a factor of two of each other count as equal. */
static int sizeClass(uint32_t u32Bytes)
{
    int nClass = 0;
    for (; u32Bytes > 0; u32Bytes >>= 1) {
        ++nClass;
    }
    return nClass;
}

ClientMemory::Share* ClientMemory::choose(const Share& asker)
{
    const uint32_t u32NowMs = monotonicMs32();
    int nMost = std::max(1, sizeClass(asker.m_u32Bytes));
    Share* pChosen = nullptr;
    uint32_t u32ChosenMs = 0;
    for (Share* pShare = m_pFirst; nullptr != pShare; pShare = pShare->m_pNext) {
        const int nClass = sizeClass(pShare->m_u32Bytes);
        // Another thread may have noted a later moment than the one looked at.
        const auto s32Ms = static_cast<int32_t>(u32NowMs - pShare->m_u32TakenMs);
        const uint32_t u32Ms = (s32Ms < 0) ? 0 : static_cast<uint32_t>(s32Ms);
        if (pShare == &asker || nClass < nMost ||
            (nClass == nMost && nullptr != pChosen && u32Ms <= u32ChosenMs)) {
            continue;
        }
        pChosen = pShare;
        nMost = nClass;
        u32ChosenMs = u32Ms;
    }
    return pChosen;
}

/** What a dropped share still holds goes as soon as its reactor ends it, and no longer counts. */
void ClientMemory::drop(Share& share)
{
    m_u32Bytes -= share.m_u32Bytes;
    share.m_u32Bytes = 0;
    share.m_bGivenUp = true;
    share.giveUp();
}

ClientMemory::Share::Share() : m_u32TakenMs(monotonicMs32())
{
    ClientMemory& memory = ClientMemory::getInstance();
    MutexGuard guard(memory.m_mtx);
    m_pNext = memory.m_pFirst;
    if (nullptr != m_pNext) {
        m_pNext->m_pPrevious = this;
    }
    memory.m_pFirst = this;
}

ClientMemory::Share::~Share()
{
    leave();
}

void ClientMemory::Share::leave()
{
    ClientMemory& memory = ClientMemory::getInstance();
    MutexGuard guard(memory.m_mtx);
    if (nullptr != m_pPrevious) {
        m_pPrevious->m_pNext = m_pNext;
    } else if (this == memory.m_pFirst) {
        memory.m_pFirst = m_pNext;
    }
    if (nullptr != m_pNext) {
        m_pNext->m_pPrevious = m_pPrevious;
    }
    m_pNext = nullptr;
    m_pPrevious = nullptr;
    memory.m_u32Bytes -= m_u32Bytes;
    m_u32Bytes = 0;
    m_bGivenUp = true;
}

bool ClientMemory::Share::take(uint32_t u32Bytes)
{
    ClientMemory& memory = ClientMemory::getInstance();
    MutexGuard guard(memory.m_mtx);
    if (m_bGivenUp) {
        return false;
    }
    while (u32Bytes > MOST_BYTES - memory.m_u32Bytes) {
        Share* pVictim = (u32Bytes > MOST_BYTES) ? nullptr : memory.choose(*this);
        if (nullptr == pVictim) {
            memory.drop(*this);
            return false;
        }
        memory.drop(*pVictim);
    }
    memory.m_u32Bytes += u32Bytes;
    m_u32Bytes += u32Bytes;
    return true;
}

void ClientMemory::Share::give(uint32_t u32Bytes)
{
    ClientMemory& memory = ClientMemory::getInstance();
    MutexGuard guard(memory.m_mtx);
    if (!m_bGivenUp) {
        m_u32Bytes -= u32Bytes;
        memory.m_u32Bytes -= u32Bytes;
    }
}

void ClientMemory::Share::noteTaken()
{
    m_u32TakenMs = monotonicMs32();
}
