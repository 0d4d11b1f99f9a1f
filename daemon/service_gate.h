#pragma once

#include <atomic>
#include <chrono>
#include <mutex>

#include "daemon/timed_lock.h"

/// Keeps the service thread out of a daemon that is being torn down. The thread is inside for all that it does but its wait
/// for input; once close() has returned it is outside for good and finds that out without touching the daemon.
/// Outlives every daemon.
class ServiceGate {
public:
    /// Lets the service thread of `daemon` in. Threads: any.
    void open(const void* daemon) { daemon_ = daemon; }

    /// Waits until the service thread is outside and keeps it there. Threads: any but the service thread.
    /// @return false when it is still inside after `patience`
    bool close(std::chrono::seconds patience)
    {
        daemon_ = nullptr;
        if (!lockWithin(inside_, patience)) return false;
        inside_.unlock();
        return true;
    }

    /// A stay inside; false when the gate is closed for that daemon.
    class Stay {
    public:
        Stay(ServiceGate& gate, const void* daemon) : inside_(gate.inside_), admitted_(gate.daemon_ == daemon) {}
        explicit operator bool() const { return admitted_; }

    private:
        std::scoped_lock<std::timed_mutex> inside_;
        bool admitted_;
    };

private:
    std::timed_mutex inside_;
    std::atomic<const void*> daemon_{nullptr};
};

inline ServiceGate g_serviceGate;
