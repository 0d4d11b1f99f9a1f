#pragma once

#include <atomic>
#include <csignal>
#include <cstdlib>

/// Counts SIGPIPE while it lives. One at a time.
class BrokenPipes {
public:
    BrokenPipes()
    {
        count_ = 0;
        struct sigaction action {};
        action.sa_handler = [](int) { ++count_; };
        if (::sigaction(SIGPIPE, &action, &before_) != 0) std::abort();
    }
    BrokenPipes(const BrokenPipes&) = delete;
    BrokenPipes& operator=(const BrokenPipes&) = delete;
    ~BrokenPipes() { ::sigaction(SIGPIPE, &before_, nullptr); }

    int count() const { return count_; }

private:
    static inline std::atomic<int> count_{0};
    struct sigaction before_ {};
};
