// One bound on the memory that the clients of all servers hold between them.
#pragma once

#include <atomic>
#include <cstdint>

#include "Mutex.h"

/**
 * Counts what waits for clients or is kept for them, and closes connections when that would cross
 * the bound: first the one that holds most, and of those that hold about as much (less than twice)
 * the one that has taken nothing for longest; the asker last, that is, when it alone holds most.
 *
 * Process-wide. A block that several connections share counts for each of them, so that the memory
 * in use may be less than what is counted.
 */
class ClientMemory
{
public:
    /** Bytes; the smallest board has 64 MiB. */
    static const uint32_t MOST_BYTES = 32U * 1024 * 1024;

    /** One connection's part. Any thread, but never with a queue's lock held. */
    class Share
    {
    public:
        Share();
        Share(const Share&) = delete;
        Share& operator=(const Share&) = delete;
        virtual ~Share();

        /** Count so many bytes. @return false when the connection has been given up */
        bool take(uint32_t u32Bytes);

        /** Stop counting them. */
        void give(uint32_t u32Bytes);

        /** The peer has taken something. */
        void noteTaken();

        /** Its bytes no longer count, and the reactor is about to end the connection. */
        bool isGivenUp() const
        {
            return m_bGivenUp.load();
        }

    protected:
        /**
         * Drop what waits and have the reactor end the connection; isGivenUp() is true by then.
         * Any thread, with the count locked: takes the lock of a queue, no send lock, logs nothing.
         */
        virtual void giveUp() = 0;

        /**
         * Call it first in the destructor of the most derived class, so that giveUp is never called
         * on an object that is half gone. Further calls do nothing.
         */
        void leave();

    private:
        friend class ClientMemory;

        Share* m_pNext = nullptr;     // guarded by ClientMemory::m_mtx, as the next two
        Share* m_pPrevious = nullptr; // null for the first, and once it has left
        uint32_t m_u32Bytes = 0;
        std::atomic<uint32_t> m_u32TakenMs; // of monotonicMs32
        std::atomic<bool> m_bGivenUp{false};
    };

    static ClientMemory& getInstance();

    /** Bytes that are counted now. */
    uint32_t getBytes();

private:
    ClientMemory() = default;
    Share* choose(const Share& asker) REQUIRES(m_mtx);
    void drop(Share& share) REQUIRES(m_mtx);

    Mutex m_mtx{MUTEX_TYPE_NORMAL}; // outside the lock of a queue, inside any send lock
    Share* m_pFirst GUARDED_BY(m_mtx) = nullptr;
    uint32_t m_u32Bytes GUARDED_BY(m_mtx) = 0; // of all shares
};
