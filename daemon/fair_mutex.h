#pragma once

#include <mutex>

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

private:
    std::mutex turn_;
    std::mutex mutex_;
};
