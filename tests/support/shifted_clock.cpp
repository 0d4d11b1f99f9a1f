// A library to be preloaded: the monotonic clock of the program goes ahead of the machine's by as
// much as the test wants.
//
// SHIFTED_CLOCK names a file of at least 4 bytes, which holds the difference: a signed word, in
// milliseconds, in the program's byte order. The test may change it at any time. Only
// clock_gettime() is shifted: what waits in the kernel takes its time.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "support/kernel_clock.h"

namespace {

constexpr long NANOS_PER_MILLI = 1'000'000;
constexpr long NANOS_PER_SECOND = 1'000'000'000;

/// @return the mapped difference; does not return when the test has made a mistake
const volatile std::int32_t* mapDifference()
{
    const char* const path = std::getenv("SHIFTED_CLOCK");
    const int file = path != nullptr ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
    void* const mapped = ::mmap(nullptr, sizeof(std::int32_t), PROT_READ, MAP_SHARED, file, 0);
    if (file < 0 || mapped == MAP_FAILED) {
        std::perror("SHIFTED_CLOCK");
        std::abort();
    }
    (void)::close(file); // the mapping stays
    return static_cast<const volatile std::int32_t*>(mapped);
}

const volatile std::int32_t* g_difference = nullptr; // plain, so that it is there before any constructor has run

// A mistake shows when the program starts, not when it first asks for the time.
[[gnu::constructor]] void openDifference()
{
    g_difference = mapDifference();
}

} // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    const int result = kernelClock(clock, now);
    if (result != 0 || clock != CLOCK_MONOTONIC || g_difference == nullptr) return result;
    const std::int32_t difference = *g_difference;
    now->tv_sec += difference / 1000;
    now->tv_nsec += (difference % 1000) * NANOS_PER_MILLI;
    if (now->tv_nsec >= NANOS_PER_SECOND) {
        now->tv_sec += 1;
        now->tv_nsec -= NANOS_PER_SECOND;
    } else if (now->tv_nsec < 0) {
        now->tv_sec -= 1;
        now->tv_nsec += NANOS_PER_SECOND;
    }
    return 0;
}
