#pragma once

#include <atomic>
#include <dlfcn.h>

/// The function of the same name that would be called without this library: the next one in the
/// order of loading, which is a sanitizer's or the C library's.
/// Threads: any; a signal handler too, once the name has been looked up.
template <class Function> class NextCall {
public:
    constexpr explicit NextCall(const char* name) : name_(name) {}

    Function get()
    {
        void* known = known_.load(std::memory_order_relaxed);
        if (known == nullptr) {
            known = ::dlsym(RTLD_NEXT, name_);
            known_.store(known, std::memory_order_relaxed);
        }
        return reinterpret_cast<Function>(known);
    }

private:
    const char* name_;
    std::atomic<void*> known_{nullptr};
};

/// What this library itself asks of the kernel goes past everything that it, or a sanitizer, stands
/// in front of.
/// @return as syscall(2)
long rawCall(long number, long first = 0, long second = 0, long third = 0, long fourth = 0, long fifth = 0);

template <class Pointer> long asWord(Pointer* pointer)
{
    return reinterpret_cast<long>(pointer);
}

/// @return false in programs that start the daemon or that it starts, which get this library with
///         their environment too
bool isTheDaemon();
