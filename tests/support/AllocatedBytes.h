// How much memory the process has allocated, with any allocator.
#pragma once

#include <cstddef>

#include <malloc.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" size_t __sanitizer_get_current_allocated_bytes(); // its header comes with clang only
#endif

#ifndef __GLIBC__
extern "C" size_t faultAllocatedBytes(); // counted by kestrel_fault, which the program has to link
#endif

inline size_t allocatedBytes()
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#elif !defined(__GLIBC__)
    return faultAllocatedBytes();
#else
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}
