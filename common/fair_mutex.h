#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

/// A mutex that nobody is kept out of by a thread which gives it back and takes it again at once, as the service thread does
/// under load: whoever waits holds the turn, and the next one waits for that. Satisfies BasicLockable.
class FairMutex {
public:
    void lock()
    {
        const std::scoped_lock turn(turn_);
        mutex_.lock();
        owner_ = std::this_thread::get_id();
    }

    void unlock()
    {
        owner_ = std::thread::id();
        mutex_.unlock();
    }

    /// @return true when the calling thread has locked it
    bool isMine() const { return owner_ == std::this_thread::get_id(); }

    /// In a process that has just been forked, by the thread that called fork(2) with the mutex locked: nobody is waiting here,
    /// whoever was there.
    void forgetWaiters() { std::construct_at(&turn_); }

private:
    std::mutex turn_;
    std::mutex mutex_;
    std::atomic<std::thread::id> owner_;
};
