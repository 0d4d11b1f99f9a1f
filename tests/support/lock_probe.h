#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "tests/support/waiting.h"

/// Asks for a lock from a thread of its own, and gives it back at once.
template <class Lock> class LockProbe {
public:
    explicit LockProbe(Lock& lock)
        : thread_([this, &lock] {
              const std::scoped_lock once(lock);
              taken_ = true;
          })
    {
    }
    LockProbe(const LockProbe&) = delete;
    LockProbe& operator=(const LockProbe&) = delete;
    /// Waits until the lock has been taken after all.
    ~LockProbe() { thread_.join(); }

    bool takenWithin(std::chrono::milliseconds time) const
    {
        return waitUntil([this] { return taken_.load(); }, time);
    }

private:
    std::atomic<bool> taken_{false};
    std::thread thread_;
};
