#pragma once

#include <chrono>
#include <ctime>

/// A moment on the monotonic clock, unmoved by changes of the date: when something is due.
using Instant = std::chrono::steady_clock::time_point;

/// Earlier than every moment: what is due then is always due.
inline constexpr Instant AT_ONCE = Instant::min();
/// Later than every moment: what is due then never is.
inline constexpr Instant NEVER = Instant::max();

/// While the clock cannot be read, the last moment that this thread has read; the beginning of the
/// clock, when it has read none.
inline Instant instantNow()
{
    thread_local timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now); // a failure leaves it as it is
    return Instant(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}
