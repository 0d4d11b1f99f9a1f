#include "common/own_thread.h"

#include <csignal>
#include <pthread.h>
#include <thread>

namespace {

/// While an object lives, the calling thread takes no signals, and neither do threads that it
/// makes, ever; except those by which the kernel reports a fault.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t signals{};
        ::sigfillset(&signals);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
            ::sigdelset(&signals, fault);
        ::pthread_sigmask(SIG_BLOCK, &signals, &before_);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_{};
};

} // namespace

bool startOwnThread(std::function<void()> work) noexcept
try {
    const SignalsBlocked blocked;
    std::thread(std::move(work)).detach();
    return true;
} catch (...) {
    return false;
}
