#pragma once

#include <atomic>
#include <csignal>
#include <cstdlib>

/// While it lives, a signal is handled by counting it, and by `handler` where one is given. One at
/// a time.
class SignalCounter {
public:
    explicit SignalCounter(int signo, int flags = 0, void (*handler)() = nullptr) : signo_(signo)
    {
        count_ = 0;
        handler_ = handler;
        struct sigaction action {};
        action.sa_handler = [](int) {
            ++count_;
            if (handler_ != nullptr) handler_();
        };
        action.sa_flags = flags;
        if (::sigaction(signo, &action, &before_) != 0) std::abort();
    }
    SignalCounter(const SignalCounter&) = delete;
    SignalCounter& operator=(const SignalCounter&) = delete;
    ~SignalCounter() { ::sigaction(signo_, &before_, nullptr); }

    int count() const { return count_; }
    void startAgain() { count_ = 0; }

private:
    static inline std::atomic<int> count_{0};
    static inline void (*handler_)() = nullptr;
    int signo_;
    struct sigaction before_ {};
};
