#pragma once

#include <chrono>
#include <ctime>

/// A moment on the monotonic clock, unmoved by changes of the date: when something is due.
using Instant = std::chrono::steady_clock::time_point;

/// Before every moment, so that it is always due; and behind every moment, so that it never is.
inline constexpr Instant AT_ONCE = Instant::min();
inline constexpr Instant NEVER = Instant::max();

/// While the clock cannot be read, the last moment that this thread has read; the beginning of the
/// clock, when it has read none.
inline Instant instantNow()
{
    thread_local timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now); // a failure leaves it as it is
    return Instant(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
}
