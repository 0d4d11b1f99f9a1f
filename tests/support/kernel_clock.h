// The clock as the kernel has it, for libraries that put another clock_gettime() in the place of
// the C library's: that cannot be looked up before its symbols are bound.
#pragma once

#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

/// @return as clock_gettime()
inline int kernelClock(clockid_t clock, timespec* now)
{
#ifdef SYS_clock_gettime64
    if constexpr (sizeof(now->tv_sec) > sizeof(long))
        return static_cast<int>(::syscall(SYS_clock_gettime64, clock, now));
#endif
    return static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
}
