#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

/// Delayed command lines by due time. Equal times keep the order of insertion.
/// Threads: no lock of its own.
class DelayQueue {
public:
    /// Due times are in milliseconds on the monotonic clock.
    using Lines = std::multimap<std::uint64_t, std::string>;

    void add(std::uint64_t due, std::string line) { lines_.emplace(due, std::move(line)); }
    void clear() { lines_.clear(); }

    /// Takes the first line that is due out of the queue.
    /// @param now  in milliseconds on the monotonic clock
    /// @return nothing when none is due
    std::optional<std::string> takeDue(std::uint64_t now);

    bool empty() const { return lines_.empty(); }

    /// In queue order.
    const Lines& lines() const { return lines_; }

private:
    Lines lines_;
};
