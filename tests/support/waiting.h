#pragma once

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <thread>

/// For what is expected to come. Far above what anything here takes, so that a slow machine does
/// not fail a test.
inline constexpr std::chrono::seconds DEADLINE{20};

/// An upper bound for a time in milliseconds: raised where the processor is known to be slow, which
/// is under a sanitizer or an emulator (TESSD_SLOW_FACTOR says how many times; 1 when it is not
/// set).
inline double atMost(double milliseconds)
{
    const char* factor = std::getenv("TESSD_SLOW_FACTOR");
    return factor == nullptr ? milliseconds : milliseconds * std::strtod(factor, nullptr);
}

/// Waits until `fact()` holds.
/// @return false when the deadline has passed first
template <class Fact> bool waitUntil(Fact fact, std::chrono::milliseconds deadline = DEADLINE)
{
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!fact()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Processor time that this thread has used, in milliseconds.
inline double threadCpuMs()
{
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
}

/// Measures how long something takes, in milliseconds.
class Stopwatch {
public:
    double ms() const
    {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start_).count();
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};
