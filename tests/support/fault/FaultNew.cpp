// operator new by way of malloc, so that a failing malloc reaches it under a sanitizer as well.
#include <cstdlib>
#include <new>

void* operator new(size_t uSize)
{
    void* pBlock = malloc((0 == uSize) ? 1 : uSize);
    if (nullptr == pBlock) {
        throw std::bad_alloc();
    }
    return pBlock;
}

// Weak: a test may have one of its own.
__attribute__((weak)) void* operator new(size_t uSize, const std::nothrow_t&) noexcept
{
    return malloc((0 == uSize) ? 1 : uSize);
}

void* operator new[](size_t uSize)
{
    return operator new(uSize);
}

void* operator new[](size_t uSize, const std::nothrow_t& tag) noexcept
{
    return operator new(uSize, tag);
}

void operator delete(void* pBlock) noexcept
{
    free(pBlock);
}

void operator delete(void* pBlock, size_t) noexcept
{
    free(pBlock);
}

void operator delete(void* pBlock, const std::nothrow_t&) noexcept
{
    free(pBlock);
}

void operator delete[](void* pBlock) noexcept
{
    free(pBlock);
}

void operator delete[](void* pBlock, size_t) noexcept
{
    free(pBlock);
}

void operator delete[](void* pBlock, const std::nothrow_t&) noexcept
{
    free(pBlock);
}
