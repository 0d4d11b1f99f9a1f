#pragma once

#include <atomic>
#include <functional>
#include <thread>

#include "tests/support/waiting.h"

/// Something that may take long, in a thread of its own, and what it has cost.
class InBackground {
public:
    explicit InBackground(std::function<int()> work)
        : thread_([this, work = std::move(work)] {
              const Stopwatch watch;
              const double before = threadCpuMs();
              result_ = work();
              cpuMs_ = threadCpuMs() - before;
              wallMs_ = watch.ms();
              done_ = true;
          })
    {
    }
    InBackground(const InBackground&) = delete;
    InBackground& operator=(const InBackground&) = delete;
    ~InBackground()
    {
        if (thread_.joinable()) thread_.join();
    }

    bool done() const { return done_; }
    /// @return what the work returned
    int wait()
    {
        if (thread_.joinable()) thread_.join();
        return result_;
    }
    double cpuMs() const { return cpuMs_; }
    double wallMs() const { return wallMs_; }

private:
    int result_ = 0;
    double cpuMs_ = 0;
    double wallMs_ = 0;
    std::atomic<bool> done_{false};
    std::thread thread_; // last: uses the others
};
