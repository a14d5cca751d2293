// A shared, reference-counted handle to a malloc'ed buffer: log lines, video frames, answers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <pthread.h>

/** The control block of a shared buffer, whatever the buffer holds. */
struct SafePointerBlock
{
    void* pObject;
    int32_t s32Count;       // guarded by mtx
    pthread_mutex_t mtx;    // guards s32Count
    uint32_t u32DataOffset; // written before the block is shared
};

/** Common base of all handles. */
class ISafePointer_C
{
public:
    virtual ~ISafePointer_C() = default;

protected:
    ISafePointer_C() = default;
    ISafePointer_C(const ISafePointer_C&) = default;
    ISafePointer_C& operator=(const ISafePointer_C&) = default;
};

/**
 * Shares a buffer that was allocated with malloc; the last handle frees it.
 *
 * Handles to one buffer may be copied and dropped on different threads; a single handle belongs to
 * one thread at a time. What the buffer holds is not guarded.
 *
 * A handle made from a null pointer, and each copy of such a handle, writes
 * "err: NULL pointer(safe pointer) !" to standard output and holds nothing. A handle that was made
 * empty is silent.
 */
template <class T> class SafePointer_C : public ISafePointer_C
{
public:
    SafePointer_C() = default;

    /** Takes the buffer over; frees it at once when no control block can be allocated. */
    explicit SafePointer_C(T* pObject)
    {
        if (nullptr == pObject) {
            reportNull();
            return;
        }
        m_pBlock = static_cast<Block*>(malloc(sizeof(Block)));
        if (nullptr == m_pBlock) {
            free(pObject);
            reportNull();
            return;
        }
        m_pBlock->pObject = pObject;
        m_pBlock->s32Count = 1;
        m_pBlock->u32DataOffset = 0;
        pthread_mutex_init(&m_pBlock->mtx, nullptr);
    }

    SafePointer_C(const SafePointer_C& other) : ISafePointer_C(other)
    {
        share(other);
    }

    SafePointer_C(SafePointer_C&& other) noexcept
        : m_pBlock(other.m_pBlock), m_bFromNull(other.m_bFromNull)
    {
        other.m_pBlock = nullptr;
    }

    SafePointer_C& operator=(const SafePointer_C& other)
    {
        if (this != &other) {
            Block* pOld = m_pBlock;
            m_pBlock = nullptr;
            m_bFromNull = false;
            share(other);
            release(pOld);
        }
        return *this;
    }

    SafePointer_C& operator=(SafePointer_C&& other) noexcept
    {
        if (this != &other) {
            release(m_pBlock);
            m_pBlock = other.m_pBlock;
            m_bFromNull = other.m_bFromNull;
            other.m_pBlock = nullptr;
        }
        return *this;
    }

    ~SafePointer_C() override
    {
        // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the analyser does not follow the count
        release(m_pBlock);
    }

    /** A handle of another type to the same buffer, e.g. a frame as the bytes to send. */
    template <class U> SafePointer_C<U> castTo() const
    {
        SafePointer_C<U> result;
        result.share(*this);
        return result;
    }

    /** @return the buffer, or null when the handle holds none */
    T* get() const
    {
        // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the analyser does not follow the count
        return (nullptr == m_pBlock) ? nullptr : static_cast<T*>(m_pBlock->pObject);
    }

    /**
     * The bytes between the buffer's start and what is sent of it, e.g. a frame's header; 0 at
     * first. All handles of a buffer see the same; set it before the first copy is handed on.
     */
    void setDataOffset(uint32_t u32Offset)
    {
        if (nullptr != m_pBlock) {
            m_pBlock->u32DataOffset = u32Offset;
        }
    }

    uint32_t getDataOffset() const
    {
        return (nullptr == m_pBlock) ? 0 : m_pBlock->u32DataOffset;
    }

private:
    using Block = SafePointerBlock;
    template <class U> friend class SafePointer_C;

    template <class U> void share(const SafePointer_C<U>& other)
    {
        if (other.m_bFromNull) {
            reportNull();
            return;
        }
        if (nullptr != other.m_pBlock) {
            pthread_mutex_lock(&other.m_pBlock->mtx);
            ++other.m_pBlock->s32Count;
            pthread_mutex_unlock(&other.m_pBlock->mtx);
            m_pBlock = other.m_pBlock;
        }
    }

    static void release(Block* pBlock)
    {
        if (nullptr == pBlock) {
            return;
        }
        pthread_mutex_lock(&pBlock->mtx);
        const int32_t s32Left = --pBlock->s32Count;
        pthread_mutex_unlock(&pBlock->mtx);
        if (s32Left < 1) {
            pthread_mutex_destroy(&pBlock->mtx);
            free(pBlock->pObject);
            free(pBlock);
        }
    }

    void reportNull()
    {
        m_bFromNull = true;
        puts("err: NULL pointer(safe pointer) !");
    }

    Block* m_pBlock = nullptr;
    bool m_bFromNull = false;
};
