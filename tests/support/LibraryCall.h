// How the C library's header declares the calls that a test program stands in for.
#pragma once

#ifdef __GLIBC__
#define LIBRARY_CALL noexcept
typedef unsigned long IoctlRequest;
#else // as POSIX has it
#define LIBRARY_CALL
typedef int IoctlRequest;
#endif
