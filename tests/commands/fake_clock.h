#pragma once

#include <cstdint>

/// While one lives, the monotonic clock of this program's own code shows what a test sets, or cannot be read. One at a time.
/// The linker's option --wrap leads clock_gettime() here.
class FakeClock {
public:
    FakeClock(std::int64_t seconds, std::int64_t nanoseconds);
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;
    ~FakeClock();

    void set(std::int64_t newSeconds, std::int64_t newNanoseconds)
    {
        seconds = newSeconds;
        nanoseconds = newNanoseconds;
    }

    std::int64_t seconds;
    std::int64_t nanoseconds;
    bool fails = false;
};
