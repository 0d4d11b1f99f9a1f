#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// Times from command to answer, in nanoseconds.
class Latencies {
public:
    Latencies() { times_.reserve(1U << 20); }

    void add(std::uint64_t nanoseconds) { times_.push_back(nanoseconds); }
    std::size_t count() const { return times_.size(); }

    /// The times at 0, 0.1, ... 100 percent, as a JSON list.
    std::string quantiles();

private:
    std::vector<std::uint64_t> times_;
};

/// On the monotonic clock.
std::uint64_t nanosecondsNow();

/// Processor time of all threads of a process, which should be waiting.
std::uint64_t processorNanoseconds(int pid);
