// A library to be preloaded: the monotonic clock of the program shows what the test has set it to,
// and stands there.
//
// STOPPED_CLOCK names a file of at least 8 bytes, which holds the time: a word of 64 bits, in
// nanoseconds, in the program's byte order. The test may change it at any time. Only
// clock_gettime() shows it: what waits in the kernel takes its time.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/kernel_clock.h"

namespace {

constexpr std::int64_t NANOS_PER_SECOND = 1'000'000'000;

/// @return the mapped time; does not return when the test has made a mistake
const std::int64_t* mapTime()
{
    const char* const path = std::getenv("STOPPED_CLOCK");
    const int file = path != nullptr ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
    void* const mapped = ::mmap(nullptr, sizeof(std::int64_t), PROT_READ, MAP_SHARED, file, 0);
    if (file < 0 || mapped == MAP_FAILED) {
        std::perror("STOPPED_CLOCK");
        std::abort();
    }
    (void)::close(file); // the mapping stays
    return static_cast<const std::int64_t*>(mapped);
}

const std::int64_t* g_time = nullptr; // plain, so that it is there before any constructor has run

// A mistake shows when the program starts, not when it first asks for the time.
[[gnu::constructor]] void openTime()
{
    g_time = mapTime();
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    if (clock != CLOCK_MONOTONIC || g_time == nullptr) return kernelClock(clock, now);
    const std::int64_t time = __atomic_load_n(g_time, __ATOMIC_ACQUIRE);
    now->tv_sec = static_cast<time_t>(time / NANOS_PER_SECOND);
    now->tv_nsec = static_cast<decltype(now->tv_nsec)>(time % NANOS_PER_SECOND);
    return 0;
}
