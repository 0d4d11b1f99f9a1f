#pragma once

#include <atomic>

/// Ends the service loop's wait from elsewhere, by a descriptor that becomes readable (eventfd(2)).
/// There is one object, and its descriptor is never closed: the signal handler and the threads that
/// nobody waits for (startOwnThread()) may wake it when the daemon is gone already, and its number
/// must not be somebody else's then.
class WakeUp {
public:
    constexpr WakeUp() = default;
    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;

    /// Makes the descriptor, once. Threads: main thread, before there are others.
    /// @throws std::runtime_error  "failed creating wake-up descriptor"
    void open();

    /// In a process that has just been forked, which must not wake its parent; g_wakeUp does so by
    /// itself. Without a descriptor of its own it wakes up when its wait is over.
    void openAnew();

    /// @return -1: not open
    int fd() const { return fd_.load(); }

    /// Threads: any; also from a signal handler. Keeps errno.
    void wake() const;

    /// Takes the wakes that have come. Threads: the one that waits.
    void clear() const;

private:
    std::atomic<int> fd_{-1};
};

extern WakeUp g_wakeUp;
