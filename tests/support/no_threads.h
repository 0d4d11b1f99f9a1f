#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>

/// While one lives, no thread can be made without attributes of its own: its stack would not fit
/// the address space.
class NoThreads {
public:
    NoThreads()
    {
        constexpr std::size_t TOO_MUCH = SIZE_MAX / 4 * 3 / 65536 * 65536;
        if (::pthread_getattr_default_np(&before_) != 0) return;
        pthread_attr_t changed = before_;
        isSet_ = ::pthread_attr_setstacksize(&changed, TOO_MUCH) == 0 && ::pthread_setattr_default_np(&changed) == 0;
    }
    NoThreads(const NoThreads&) = delete;
    NoThreads& operator=(const NoThreads&) = delete;
    ~NoThreads()
    {
        if (isSet_) ::pthread_setattr_default_np(&before_);
    }

    bool isSet() const { return isSet_; }

private:
    pthread_attr_t before_{};
    bool isSet_ = false;
};
