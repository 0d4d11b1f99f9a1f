#pragma once

#include <atomic>
#include <cstdint>

/// Counts, and begins anew behind the largest number of 32 bits. One thread writes at a time, any
/// may read: adding is a plain load and a plain store.
class Counter {
public:
    void add() { set(value() + 1); }
    void set(std::uint32_t value) { value_.store(value, std::memory_order_relaxed); }
    std::uint32_t value() const { return value_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint32_t> value_{0};
    static_assert(std::atomic<std::uint32_t>::is_always_lock_free);
};

/// What the daemon has done since its start, by the thread that counts it.
struct Counters {
    // The service thread.
    Counter lines;         ///< command lines taken, delayed ones that were run among them
    Counter forwarded;     ///< records of kind 101 that went into a process's queue
    Counter refused;       ///< commands that were not carried out: "?", and the error texts of the daemon
    Counter logins;        ///< accepted
    Counter loginFailures; ///< refused for their name or their password
    Counter delays;        ///< not since the start: delayed lines that are pending now

    // The message loop.
    Counter answered; ///< answers written to the connection that asked
    Counter dropped;  ///< answers for a connection that is gone
    Counter unknown;  ///< records of kinds that mean nothing

    // Whoever holds the registry lock.
    Counter queueWaits; ///< records that have waited for room in a process's queue
};

inline constinit Counters g_counters;
