#pragma once

#include <chrono>
#include <memory>
#include <mutex>

#include "daemon/timed_lock.h"

/// A mutex that nobody is kept out of by a thread which gives it back and takes it again at once, as the service thread does
/// under load: whoever waits holds the turn, and the next one waits for that. Satisfies BasicLockable.
class FairMutex {
public:
    void lock()
    {
        const std::scoped_lock turn(turn_);
        mutex_.lock();
    }

    void unlock() { mutex_.unlock(); }

    /// Gives up after `patience`.
    /// @return true when it is locked
    bool lockWithin(std::chrono::seconds patience)
    {
        const std::scoped_lock turn(turn_);
        return ::lockWithin(mutex_, patience);
    }

    /// In a process that has just been forked, by the thread that called fork(2): nobody is waiting here, whoever was there.
    void forgetWaiters() { std::construct_at(&turn_); }

private:
    std::mutex turn_;
    std::timed_mutex mutex_;
};
