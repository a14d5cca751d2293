// How the C library's header declares the calls that a test program replaces.
#pragma once

#ifdef __GLIBC__
#define LIBRARY_CALL noexcept
typedef unsigned long IoctlRequest;
#else // as POSIX has it
#define LIBRARY_CALL
typedef int IoctlRequest;
#endif
