#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

/// A mutex that lets a waiting thread in. With std::mutex, a thread that unlocks and at once locks
/// again, as the service thread does under load, nearly always wins against one that is waiting,
/// which then waits on and on. Here whoever has to wait, or finds another one waiting, first locks
/// a second mutex, the turn, and keeps it until it has locked the first: a thread that comes back
/// while another one is waiting waits behind it. Satisfies Lockable.
class FairMutex {
public:
    void lock()
    {
        if (!try_lock()) lockInTurn();
    }

    /// @return false: another thread has locked it, or waits for it
    bool try_lock()
    {
        if (waiting_ != 0 || !mutex_.try_lock()) return false;
        owner_ = std::this_thread::get_id();
        return true;
    }

    void unlock()
    {
        owner_ = std::thread::id();
        mutex_.unlock();
    }

    /// @return true when the calling thread has locked it
    bool isMine() const { return owner_ == std::this_thread::get_id(); }

    /// For a process that has just been forked, by the thread that called fork(2) with the mutex
    /// locked. A thread of the parent that was waiting is not in this process, and would hold the
    /// turn for ever.
    void forgetWaiters()
    {
        std::construct_at(&turn_);
        waiting_ = 0;
    }

private:
    void lockInTurn()
    {
        ++waiting_;
        const std::scoped_lock turn(turn_);
        mutex_.lock();
        --waiting_;
        owner_ = std::this_thread::get_id();
    }

    std::mutex turn_;
    std::mutex mutex_;
    std::atomic<int> waiting_{0};
    std::atomic<std::thread::id> owner_;
};
