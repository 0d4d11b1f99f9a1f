#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

/// The queues that had no room for as long as a sender was ready to wait. Nobody waits for them again before they take
/// a record.
/// Threads: any. While no queue is stuck, has() and remove() take no lock.
class TStuckQueues {
public:
    /// Twice the processes that tessd serves. When more are stuck, the one that has been so for longest is forgotten and
    /// costs its next sender another wait.
    static constexpr std::size_t CAPACITY = 64;

    constexpr TStuckQueues() = default;

    bool has(long address) const;
    void add(long address);
    void remove(long address);

private:
    mutable std::mutex lock_;
    std::array<long, CAPACITY> addresses_{}; ///< the oldest first
    std::atomic<std::uint32_t> count_{0};
};
