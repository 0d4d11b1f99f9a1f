#pragma once

#include <chrono>
#include <cstdint>

/// While one lives, the monotonic clock of this program's own code shows what a test sets, or
/// cannot be read. One at a time. The linker's option --wrap leads clock_gettime() here.
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

/// While one lives, no moment passes for this program's own code but those that a test lets pass; a
/// FakeClock is another one: while both live, clock_gettime() shows that one's time and what has
/// passed. One at a time. The linker's option --wrap leads clock_gettime() and
/// std::chrono::steady_clock::now() here.
class StoppedTime {
public:
    StoppedTime();
    StoppedTime(const StoppedTime&) = delete;
    StoppedTime& operator=(const StoppedTime&) = delete;
    ~StoppedTime();

    void pass(std::chrono::steady_clock::duration time) { now += time; }

    std::chrono::steady_clock::time_point now;
    const std::chrono::steady_clock::time_point began = now;
};
