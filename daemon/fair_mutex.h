#pragma once

#include <ctime>
#include <mutex>
#include <pthread.h>

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

    /// Gives up after `seconds`.
    /// @return true when it is locked
    bool lockWithin(std::time_t seconds)
    {
        timespec until{};
        (void)::clock_gettime(CLOCK_REALTIME, &until); // the clock that pthread_mutex_timedlock(3) goes by
        until.tv_sec += seconds;
        const std::scoped_lock turn(turn_);
        return ::pthread_mutex_timedlock(mutex_.native_handle(), &until) == 0;
    }

private:
    std::mutex turn_;
    std::mutex mutex_;
};
